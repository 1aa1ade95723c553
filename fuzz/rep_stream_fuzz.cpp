// rep_stream_fuzz.cpp - the input stream: whatever arrives, and in whatever order records are asked
// for, nothing is taken that has not come, and texts and lengths stay in their bounds.
//
// The first byte is a number of steps, up to 31, and in its high bits how large a piece each read
// brings; a byte for each step follows; the rest is the stream.
#include "fuzz.h"
#include "koutil/rep_stream.h"

#include <algorithm>
#include <sys/mman.h>
#include <sys/syscall.h>

namespace
{

size_t piece; // the most that a read brings, 0 for no limit

void take_name(rep_in_stream_t *in, uint8_t step)
{
    const uint32_t room = step >> 3; // 0 to 31
    const Text exact = room_of(room);
    char *const name = exact.get();
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
    rep_header_t header;
    rep_blob_t blob;
    Text data;
    uint32_t length = 0;
    int result = 0;
    switch (step & 7) {
    case 3:
        data = room_of(step * 300u);
        result = extract_rep_cmd(in, reinterpret_cast<uint8_t *>(data.get()), step * 300u,
                                 (step & 8) != 0 ? &length : nullptr);
        require(length <= REP_BUFFER_SIZE);
        break;
    case 4:
        data = (step & 8) != 0 ? room_of(step * 270u) : nullptr;
        result = extract_rep_data(in, reinterpret_cast<uint8_t *>(data.get()), step * 270u);
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

// Every read of the program. What it may fill is filled, so that bytes that did not come are wrong.
extern "C" ssize_t read(int file, void *buffer, size_t size)
{
    memset(buffer, 0xA5, size);
    return syscall(SYS_read, file, buffer, piece != 0 ? std::min(size, piece) : size);
}

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
    constexpr size_t pieces[] = {0, 1, 3, 7, 8, 100, 4096, 65535};
    piece = pieces[data[0] / 32];
    rep_in_stream_t *in = create_rep_in_stream(file);
    for (size_t i = 0; i < steps; i++) {
        take(in, data[1 + i]);
        require(in->rep_stream_offset <= length);
    }
    rep_stream_t *out = create_rep_out_stream();
    require(copy_rep_stream(in, out) == 0 && in->rep_stream_offset == length);
    cleanup_rep_stream(out, 0);
    cleanup_rep_in_stream(in);
    piece = 0;
    return 0;
}
