// sid_subr.cpp - conversion of security identifiers and POSIX ids.
#include "koutil/sid_subr.h"

#include "koutil/snprintf.h"

#include <cstring>

namespace
{

constexpr uint32_t first_user_rid = 1000;
constexpr uint32_t first_group_rid = 1001;
constexpr uint32_t administrator_rid = 500;
constexpr char local_system[] = "S-1-5-18";
constexpr size_t authority_size = 6;
constexpr size_t header_size = 8;

static_assert(header_size + 4 * SID_MAX_SUBAUTHS == SID_BINARY_SIZE);

// The digits at the start of `text` as a number modulo 2^64; 0 where there are none.
uint64_t number_at(const char *text)
{
    uint64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + static_cast<uint64_t>(*text - '0');
    }
    return value;
}

int id2rid(uint32_t id, uint32_t base, uint32_t *rid)
{
    const uint64_t wide = uint64_t{id} * 2 + base;
    if (wide > UINT32_MAX) {
        return -1;
    }
    *rid = static_cast<uint32_t>(wide);
    return 0;
}

// Number of fields that follow the revision, each behind a '-'.
size_t count_fields(const char *text)
{
    size_t count = 0;
    while ((text = strchr(text, '-')) != nullptr) {
        ++count;
        ++text;
    }
    return count;
}

} // namespace

char DomainSid[256];
int DomainSidLen;

void voGetshortLittleEndian(unsigned char *ptr, uint16_t *us)
{
    *us = static_cast<uint16_t>(ptr[0] | ptr[1] << 8);
}

void voPutshortLittleEndian(uint16_t *us, unsigned char *ptr)
{
    ptr[0] = static_cast<unsigned char>(*us);
    ptr[1] = static_cast<unsigned char>(*us >> 8);
}

void voGetlongLittleEndian(unsigned char *ptr, uint32_t *ul)
{
    *ul = ptr[0] | uint32_t{ptr[1]} << 8 | uint32_t{ptr[2]} << 16 | uint32_t{ptr[3]} << 24;
}

void voPutlongLittleEndian(uint32_t *us, unsigned char *ptr)
{
    for (int i = 0; i < 4; ++i) {
        ptr[i] = static_cast<unsigned char>(*us >> (8 * i));
    }
}

int uid2rid(uint32_t uid, uint32_t *rid)
{
    return id2rid(uid, first_user_rid, rid);
}

int gid2rid(uint32_t gid, uint32_t *rid)
{
    return id2rid(gid, first_group_rid, rid);
}

uint32_t rid2id(uint32_t rid, int *isgroup)
{
    const bool group = rid % 2 != 0;
    if (isgroup != nullptr) {
        *isgroup = group ? 1 : 0;
    }
    return (rid - (group ? first_group_rid : first_user_rid)) / 2;
}

void rootsid(char *sid, const char *domain_sid, int using_active_directory)
{
    if (using_active_directory == 0) {
        memcpy(sid, local_system, sizeof local_system);
        return;
    }
    VoSnprintf(sid, strlen(domain_sid) + sizeof "-500", "%s-500", domain_sid);
}

int isrootsid(const char *sid, int using_active_directory)
{
    if ((sid[0] == 'S' || sid[0] == 's') && strcmp(sid + 1, local_system + 1) == 0) {
        return 1;
    }
    const char *const last_dash = strrchr(sid, '-');
    if (last_dash == nullptr) {
        return 0;
    }
    const uint32_t rid = static_cast<uint32_t>(number_at(last_dash + 1));
    return rid == (using_active_directory != 0 ? administrator_rid : first_user_rid) ? 1 : 0;
}

int binary_sid(const char *in_sidstr, unsigned char *out_binary)
{
    if ((in_sidstr[0] != 'S' && in_sidstr[0] != 's') || in_sidstr[1] != '-') {
        return 0;
    }
    const char *field = in_sidstr + 2;
    const size_t fields = count_fields(field);
    if (fields == 0 || fields - 1 > SID_MAX_SUBAUTHS) {
        return 0;
    }
    const size_t subauths = fields - 1;
    out_binary[0] = static_cast<unsigned char>(number_at(field));
    out_binary[1] = static_cast<unsigned char>(subauths);
    field = strchr(field, '-') + 1;
    const uint64_t authority = number_at(field);
    for (size_t i = 0; i < authority_size; ++i) {
        out_binary[2 + i] = static_cast<unsigned char>(authority >> (8 * (authority_size - 1 - i)));
    }
    for (size_t i = 0; i < subauths; ++i) {
        field = strchr(field, '-') + 1;
        uint32_t subauth = static_cast<uint32_t>(number_at(field));
        voPutlongLittleEndian(&subauth, out_binary + header_size + 4 * i);
    }
    return static_cast<int>(header_size + 4 * subauths);
}

int issid(const char *str)
{
    unsigned char binary[SID_BINARY_SIZE];
    return binary_sid(str, binary);
}

void ascii_sid(unsigned char *ptr, char *sidstr)
{
    if (ptr == nullptr) {
        VoSnprintf(sidstr, sizeof "Invalid SID", "Invalid SID");
        return;
    }
    uint64_t authority = 0;
    for (size_t i = 0; i < authority_size; ++i) {
        authority = authority << 8 | ptr[2 + i];
    }
    const size_t room = 32 + 11 * size_t{ptr[1]};
    size_t used = static_cast<size_t>(
        VoSnprintf(sidstr, room, "S-%d-%ld", int{ptr[0]}, static_cast<long>(authority)));
    for (size_t i = 0; i < ptr[1]; ++i) {
        uint32_t subauth;
        voGetlongLittleEndian(ptr + header_size + 4 * i, &subauth);
        used += static_cast<size_t>(VoSnprintf(sidstr + used, room - used, "-%u", subauth));
    }
}
