// rep_stream_fuzz.cpp - the input stream: whatever arrives, and in whatever order records are asked
// for, nothing is taken that has not come, and texts and lengths stay in their bounds.
//
// The first byte is a number of steps, up to 31; a byte for each follows; the rest is the stream.
#include "koutil/rep_stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

void require(bool condition)
{
    if (!condition) {
        abort();
    }
}

void take_name(rep_in_stream_t *in, uint8_t step)
{
    const uint32_t room = step >> 3; // 0 to 31
    auto *name = static_cast<char *>(malloc(room + 1));
    memset(name, '?', room + 1);
    rep_file_t file;
    file_info_t info;
    rep_ns_file_t ns;
    int length = 0;
    switch (step & 7) {
    case 0:
        length = extract_rep_file(in, &file, name, room);
        break;
    case 1:
        length = extract_file_info(in, &info, name, room);
        break;
    default:
        length = extract_rep_ns_file(in, &ns, name, room);
    }
    require(length >= -1 && (length <= 0 || static_cast<uint32_t>(length) < room));
    require(length <= 0 || name[length] == '\0');
    require(name[room] == '?');
    free(name);
}

void take_mapping(rep_in_stream_t *in)
{
    uint64_t key = 0;
    uint8_t *data = nullptr;
    uint32_t length = REP_MAX_SD_LEN;
    const int status = extract_rep_sd_mapping(in, &key, &data, &length);
    require((status == 0) == (data != nullptr) && length > 0 && length <= REP_MAX_SD_LEN);
    free(data);
}

void take(rep_in_stream_t *in, uint8_t step)
{
    static uint8_t data[70000];
    rep_header_t header;
    rep_blob_t blob;
    uint32_t length = 0;
    int result = 0;
    switch (step & 7) {
    case 3:
        result = extract_rep_cmd(in, data, step * 300u, (step & 8) != 0 ? &length : nullptr);
        require(length <= REP_BUFFER_SIZE);
        break;
    case 4:
        result = extract_rep_data(in, (step & 8) != 0 ? data : nullptr, step * 270u);
        break;
    case 5:
        take_mapping(in);
        break;
    case 6:
        result = (step & 8) != 0 ? extract_rep_blob(in, &blob) : extract_rep_small_blob(in, &blob);
        break;
    case 7:
        result = (step & 8) != 0 ? extract_rep_header(in, &header) : peek_rep_stream(in);
        break;
    default:
        take_name(in, step);
    }
    require(result >= -1 && result <= UINT16_MAX);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const size_t steps = std::min<size_t>(data[0] % 32, size - 1);
    const uint8_t *stream = data + 1 + steps;
    const size_t length = size - 1 - steps;
    const int file = memfd_create("stream", MFD_CLOEXEC);
    require(write(file, stream, length) == static_cast<ssize_t>(length));
    require(lseek(file, 0, SEEK_SET) == 0);
    rep_in_stream_t *in = create_rep_in_stream(file);
    for (size_t i = 0; i < steps; i++) {
        take(in, data[1 + i]);
        require(in->rep_stream_offset <= length);
    }
    rep_stream_t *out = create_rep_out_stream();
    require(copy_rep_stream(in, out) == 0 && in->rep_stream_offset == length);
    cleanup_rep_stream(out, 0);
    cleanup_rep_in_stream(in);
    return 0;
}
