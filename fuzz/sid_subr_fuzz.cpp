// sid_subr_fuzz.cpp - security identifiers: any text is read as plain rules read it, and any binary
// form comes back from its text.
#include "fuzz.h"
#include "koutil/sid_subr.h"

#include <string>
#include <vector>

namespace
{

// The digits at the start of a field.
uint64_t number(const std::string &field)
{
    uint64_t value = 0;
    for (size_t i = 0; i < field.size() && field[i] >= '0' && field[i] <= '9'; i++) {
        value = value * 10 + static_cast<uint64_t>(field[i] - '0');
    }
    return value;
}

// The binary form of a text; empty when it is no SID.
std::vector<uint8_t> expected(std::string text)
{
    std::vector<uint8_t> result;
    if (text.size() < 2 || (text[0] | 0x20) != 's' || text[1] != '-') {
        return result;
    }
    std::vector<std::string> fields;
    text += '-';
    for (text.erase(0, 2); !text.empty(); text.erase(0, text.find('-') + 1)) {
        fields.push_back(text.substr(0, text.find('-')));
    }
    if (fields.size() < 2 || fields.size() - 2 > SID_MAX_SUBAUTHS) {
        return result;
    }
    result = {static_cast<uint8_t>(number(fields[0])), static_cast<uint8_t>(fields.size() - 2)};
    for (int shift = 40; shift >= 0; shift -= 8) {
        result.push_back(static_cast<uint8_t>(number(fields[1]) >> shift));
    }
    for (size_t i = 2; i < fields.size(); i++) {
        for (int shift = 0; shift < 32; shift += 8) {
            result.push_back(static_cast<uint8_t>(number(fields[i]) >> shift));
        }
    }
    return result;
}

// The text of a binary form, in the room that it may need, and back.
void there_and_back(const std::vector<uint8_t> &binary)
{
    const Text exact = room_of(binary.size());
    memcpy(exact.get(), binary.data(), binary.size());
    const Text text = room_of(22 + 11 * size_t{binary[1]});
    ascii_sid(reinterpret_cast<unsigned char *>(exact.get()), text.get());
    require(strlen(text.get()) < 22 + 11 * size_t{binary[1]});
    const std::vector<uint8_t> again = expected(text.get());
    require(binary[1] > SID_MAX_SUBAUTHS ? again.empty() : again == binary);
}

void ids(const uint8_t *data)
{
    uint32_t id;
    memcpy(&id, data, sizeof id);
    uint32_t rid = 0;
    int group = -1;
    require(uid2rid(id, &rid) != 0 || (rid2id(rid, &group) == id && group == 0));
    require(gid2rid(id, &rid) != 0 || (rid2id(rid, &group) == id && group == 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Text text = text_of(data, size);
    const std::vector<uint8_t> binary = expected(text.get());
    const Text out = room_of(SID_BINARY_SIZE);
    const int length = binary_sid(text.get(), reinterpret_cast<unsigned char *>(out.get()));
    require(length == static_cast<int>(binary.size()) && issid(text.get()) == length);
    require(length == 0 || memcmp(out.get(), binary.data(), binary.size()) == 0);
    if (length != 0) {
        there_and_back(binary);
    }
    for (const int domain : {0, 1}) {
        const Text root = room_of(domain != 0 ? strlen(text.get()) + 5 : 9);
        rootsid(root.get(), text.get(), domain);
        require(isrootsid(root.get(), domain) == 1);
        isrootsid(text.get(), domain);
    }
    if (size >= 8) {
        std::vector<uint8_t> any(8 + 4 * size_t{data[1]});
        memcpy(any.data(), data, size < any.size() ? size : any.size());
        there_and_back(any);
        ids(data);
    }
    return 0;
}
