// mntargs.cpp - the mount arguments of a file system.
//
// Everything works from the table g_MntArgsInf (internal/mntargs_table.inc), which says where in
// the record a tunable stands and how wide it is. Fields are read and written through memcpy at
// their width, so one routine serves every number.
#include "koutil/mntargs.h"

#include "internal/guards.h"
#include "koutil/brandcfg.h"
#include "koutil/kovacfg.h"
#include "koutil/kovaio.h"
#include "koutil/snprintf.h"
#include "koutil/strint.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

// The layout that the consumers of a record share.
// clang-format off
#define AT(field, offset) static_assert(offsetof(mntargs_t, field) == (offset))
AT(ma_ndmons, 0); AT(ma_naiodmons, 2); AT(ma_dmonprio, 4); AT(ma_retrans, 6); AT(ma_sysloglevel, 8);
AT(ma_timeout, 10); AT(ma_mntretrans, 12); AT(ma_mntretry, 14); AT(ma_mountoptions, 16);
AT(ma_cachelow, 24); AT(ma_cachehigh, 28); AT(ma_cachemax, 32); AT(ma_cacheholdsecs, 36);
AT(ma_cachebufsize, 40); AT(ma_buffercachecap, 44); AT(ma_bufferhighdirty, 48);
AT(ma_bufferlowdirty, 52); AT(ma_buffercache_iods, 56); AT(ma_buffercache_readahead, 60);
AT(ma_max_dma_ios, 64); AT(ma_stripeclusters, 68); AT(ma_attrflushsecs, 72);
AT(ma_shattrflushsecs, 76); AT(ma_memalign, 80); AT(ma_blkbufsize, 84); AT(ma_nrtiotokenhold, 88);
AT(ma_dircachesize, 92); AT(ma_auto_dma_read_length, 96); AT(ma_auto_dma_write_length, 104);
AT(ma_iso8859, 112); AT(pad_2, 116); AT(ma_ingest_max_seg_size, 120);
AT(ma_ingest_max_seg_age, 128); AT(pad_3, 132); AT(ma_fsdispname, 136); AT(ma_fsname, 392);
AT(ma_mntpoint, 648); AT(ma_rtreqtimeout, 904); AT(ma_rtreqretry, 908); AT(ma_pxpath, 912);
AT(ma_rescantimeout, 916); AT(ma_max_dma, 920); AT(ma_max_dev, 928); AT(ma_nnfsdmons, 936);
AT(pad_4, 940); AT(ma_winregkeynm, 944); AT(pad_5, 977); AT(ma_maxnppoolmb, 984);
AT(ma_px_read_timeout, 992); AT(ma_px_write_timeout, 996); AT(ma_numnicargs, 1000);
AT(ma_io_retry_time, 1004); AT(ma_io_penalty_time, 1008); AT(pad_6, 1012);
AT(ma_guid_win_cli, 1016); AT(ma_optbuf, 1032); AT(ma_proxynicargs, 1040);
#undef AT
// clang-format on
static_assert(sizeof(mntargs_t) == 1048 && alignof(mntargs_t) == 8);
static_assert(
    offsetof(ProxyNicArgs_t, pn_nicip) == 16 && offsetof(ProxyNicArgs_t, pn_windowsize) == 32 &&
    offsetof(ProxyNicArgs_t, pn_flags) == 36 && offsetof(ProxyNicArgs_t, pn_sbsize) == 40 &&
    offsetof(ProxyNicArgs_t, pn_sbcount) == 44 && offsetof(ProxyNicArgs_t, pn_lbcount) == 48 &&
    offsetof(ProxyNicArgs_t, pn_ndmons) == 52 && offsetof(ProxyNicArgs_t, pn_xfertimeout) == 56 &&
    offsetof(ProxyNicArgs_t, pn_connecttimeout) == 60 && sizeof(ProxyNicArgs_t) == 64);

namespace
{

constexpr VoError_t no_entry = 2;
constexpr VoError_t invalid = 11;
constexpr VoError_t out_of_memory = 12;
constexpr VoError_t out_of_range = 22;
constexpr VoError_t name_too_long = 36;
constexpr VoError_t not_implemented = 38;
constexpr VoError_t not_supported = 95;

constexpr size_t text_size = 256;
constexpr uint64_t mntopt_initial = 0x80; // set in every new record
constexpr MntArgsPlat_t every_platform = 0xFFFFFFFF;

constexpr size_t width_of(MntArgsType_t type)
{
    switch (type) {
    case MNTARGS_TYPE_CHAR:
    case MNTARGS_TYPE_UCHAR:
        return 1;
    case MNTARGS_TYPE_INT16:
    case MNTARGS_TYPE_UINT16:
        return 2;
    case MNTARGS_TYPE_INT32:
    case MNTARGS_TYPE_UINT32:
        return 4;
    case MNTARGS_TYPE_INT64:
    case MNTARGS_TYPE_UINT64:
        return 8;
    case MNTARGS_TYPE_CHARP:
        return text_size;
    case MNTARGS_TYPE_INVAL:
        break;
    }
    return 0;
}

// One row of the table. A kind that does not fit its field does not compile.
constexpr MntArgsInf_t row(int number, const char *title, const char *name, const char *second_key,
                           size_t offset, size_t width, MntArgsType_t type, uint64_t smallest,
                           uint64_t largest, uint64_t standard, const char *help,
                           MntArgsPlat_t platforms = every_platform)
{
    if (width != width_of(type)) {
        __builtin_unreachable();
    }
    return {offset,
            const_cast<char *>(title),
            const_cast<char *>(name),
            const_cast<char *>(help),
            smallest,
            largest,
            standard,
            platforms,
            type,
            number,
            const_cast<char *>(second_key)};
}

} // namespace

#define FIELD(name) offsetof(mntargs_t, name), sizeof(mntargs_t::name)
constinit MntArgsInf_t g_MntArgsInf[49] = {
#include "internal/mntargs_table.inc"
    {}};
#undef FIELD

namespace
{

// A record as it is allocated.
struct Block {
    mntargs_t record;
    ProxyNicArgs_t global;
    ProxyNicArgs_t nics[MNTARGS_MAX_NICS];
};
static_assert(sizeof(Block) == 4184 && offsetof(Block, global) == 1048 &&
              offsetof(Block, nics) == 1112);

// The TOVAN records behind a record: the global one, then those of the interfaces.
ProxyNicArgs_t *tovan_records(mntargs_t *args)
{
    return reinterpret_cast<ProxyNicArgs_t *>(args + 1);
}

// What users are told, as far as the caller's buffer has room.
class Message
{
  public:
    Message(char *buffer, size_t size)
    {
        if (buffer != nullptr && size != 0) {
            buffer[size - 1] = '\0';
            at_ = buffer;
            left_ = size - 1;
        }
    }
    void append(const char *format, ...) KO_PRINTF(2, 3)
    {
        if (left_ == 0) {
            return;
        }
        va_list args;
        va_start(args, format);
        const int length = VoVsnprintf(at_, left_, format, args);
        va_end(args);
        const size_t written = std::min(static_cast<size_t>(std::max(length, 0)), left_ - 1);
        at_ += written;
        left_ -= written;
    }
    char *at() const { return at_; }
    size_t left() const { return left_; }

  private:
    char *at_ = nullptr;
    size_t left_ = 0;
};

// Little-endian, as the platform is: the low bytes of a number come first.
uint64_t number_in(const mntargs_t &args, const MntArgsInf_t &row)
{
    uint64_t value = 0;
    memcpy(&value, reinterpret_cast<const char *>(&args) + row.mai_MntArgsOff,
           width_of(row.mai_MntArgsType));
    return value;
}

void store_number(mntargs_t *args, const MntArgsInf_t &row, uint64_t value)
{
    memcpy(reinterpret_cast<char *>(args) + row.mai_MntArgsOff, &value,
           width_of(row.mai_MntArgsType));
}

const char *text_in(const mntargs_t &args, const MntArgsInf_t &row)
{
    return reinterpret_cast<const char *>(&args) + row.mai_MntArgsOff;
}

void store_text(mntargs_t *args, const MntArgsInf_t &row, const char *text)
{
    char *field = reinterpret_cast<char *>(args) + row.mai_MntArgsOff;
    const size_t length = strnlen(text, text_size - 1);
    memcpy(field, text, length);
    memset(field + length, 0, text_size - length);
}

bool is_text(const MntArgsInf_t &row)
{
    return row.mai_MntArgsType == MNTARGS_TYPE_CHARP;
}

MntArgsMask_t bit_of(const MntArgsInf_t &row)
{
    return MntArgsMask_t{1} << row.mai_Index;
}

// The rows without the one that ends the table.
struct Tunables {
    MntArgsInf_t *begin() const { return g_MntArgsInf; }
    MntArgsInf_t *end() const { return std::end(g_MntArgsInf) - 1; }
};

// The row of a field that has one.
const MntArgsInf_t &row_of(size_t offset)
{
    return *std::find_if(Tunables().begin(), Tunables().end(),
                         [=](const MntArgsInf_t &row) { return row.mai_MntArgsOff == offset; });
}

// What VoMntArgsValidate collects.
struct Findings {
    Message message;
    unsigned int count = 0;
    MntArgsMask_t failed = 0;

    void add(const MntArgsInf_t &row)
    {
        ++count;
        failed |= bit_of(row);
    }
};

void check_range(const mntargs_t &args, const MntArgsInf_t &row, Findings *findings)
{
    const char *error = nullptr;
    if (is_text(row)) {
        if (strnlen(text_in(args, row), text_size) > row.mai_ValMax) {
            error = "Too many characters.";
        }
    } else {
        const uint64_t value = number_in(args, row);
        if (value < row.mai_ValMin || value > row.mai_ValMax) {
            error = "Value out of range.";
        }
    }
    if (error == nullptr) {
        return;
    }
    findings->add(row);
    char smallest[16];
    char largest[16];
    char standard[16];
    IntToStr64(static_cast<int64_t>(row.mai_ValMin), smallest, sizeof smallest);
    IntToStr64(static_cast<int64_t>(row.mai_ValMax), largest, sizeof largest);
    IntToStr64(static_cast<int64_t>(row.mai_ValDflt), standard, sizeof standard);
    findings->message.append("%s\n\n%s\n\nERROR: %s\n\nVALID RANGE: %s to %s\nDEFAULT VALUE: %s\n"
                             "HELP KEYWORD: %s\n",
                             row.mai_Title, row.mai_Help, error, smallest, largest, standard,
                             row.mai_Name);
}

void report_conflict(const MntArgsInf_t &row, const char *error, Findings *findings)
{
    findings->add(row);
    findings->message.append("%s\n\n%s\n\nERROR: %s\n\nHELP KEYWORD: %s\n", row.mai_Title,
                             row.mai_Help, error, row.mai_Name);
}

void check_watermarks(const mntargs_t &args, MntArgsMask_t rows, Findings *findings)
{
    const MntArgsInf_t &low = row_of(offsetof(mntargs_t, ma_bufferlowdirty));
    const MntArgsInf_t &high = row_of(offsetof(mntargs_t, ma_bufferhighdirty));
    if (args.ma_bufferhighdirty == 0) {
        return; // no background flushing
    }
    if ((rows & bit_of(low)) != 0 && args.ma_bufferlowdirty >= args.ma_bufferhighdirty) {
        report_conflict(low, "Low Water Mark is not less than the High Water Mark", findings);
    }
    if ((rows & bit_of(high)) == 0) {
        return;
    }
    if (args.ma_bufferhighdirty == 1) {
        report_conflict(high, "The minimum High Water Mark is 2.", findings);
    }
    if (args.ma_bufferhighdirty > args.ma_buffercachecap) {
        report_conflict(high, "High Water Mark is greater than Buffer Cache size", findings);
    }
}

// Writes a message only where there is a fault, and nothing behind it.
VoError_t check_mount_point(const mntargs_t &args, char *buffer, size_t size)
{
    const size_t room = buffer != nullptr ? size : 0;
    const size_t length = strnlen(args.ma_mntpoint, sizeof args.ma_mntpoint);
    if (length == 0) {
        VoSnprintf(buffer, room, "No Mount Point specified.");
        return out_of_range;
    }
    if (length == sizeof args.ma_mntpoint) {
        VoSnprintf(buffer, room, "Mount point name is too long:\n'%.256s'", args.ma_mntpoint);
        return name_too_long;
    }
    return 0;
}

// A number of the global TOVAN record with both ends of its range; the suffixes are units as users
// read them.
struct TovanLimit {
    uint32_t ProxyNicArgs_t::*field;
    const char *title;
    int smallest;
    int largest;
    const char *smallest_suffix = "";
    const char *largest_suffix = "";
};

constexpr TovanLimit tovan_limits[] = {
    {&ProxyNicArgs_t::pn_connecttimeout, "TOVAN Connection Timeout", 40, 600, "", " seconds"},
    {&ProxyNicArgs_t::pn_windowsize, "TOVAN TCP Window Size", 0, 16384, "K", "K"},
    {&ProxyNicArgs_t::pn_sbsize, "TOVAN Transfer Buffer Size", 32, 1024, "K", "K"},
    {&ProxyNicArgs_t::pn_sbcount, "TOVAN Transfer Buffer Count", 4, 128},
    {&ProxyNicArgs_t::pn_ndmons, "TOVAN Thread Count", 2, 256},
    {&ProxyNicArgs_t::pn_lbcount, "TOVAN Buffer Count", 4, 512},
    {&ProxyNicArgs_t::pn_xfertimeout, "TOVAN Transfer Timeout", 20, 600, "", " seconds"},
};

// Returns whether all is well; a fault leaves its message.
bool check_tovan(mntargs_t *args, Message *message)
{
    const uint64_t options = args->ma_mountoptions;
    if ((options & MNTOPT_TOVAN_SERVER) != 0 && args->ma_numnicargs == 0) {
        message->append("At least 1 NIC must be selected\nfor TOVAN servers");
        return false;
    }
    if ((options & MNTOPT_TOVAN_CLIENT) != 0 && (options & MNTOPT_TOVAN_SERVER) != 0) {
        message->append("TOVAN Cannot be both Client and Server.");
        return false;
    }
    const ProxyNicArgs_t &global = *tovan_records(args);
    for (const TovanLimit &limit : tovan_limits) {
        const int64_t value = global.*limit.field;
        if (value < limit.smallest || value > limit.largest) {
            message->append("Invalid value for '%s'\nValid range: %d%s to %d%s", limit.title,
                            limit.smallest, limit.smallest_suffix, limit.largest,
                            limit.largest_suffix);
            return false;
        }
    }
    if (global.pn_flags > 3) {
        message->append("Invalid value for Proxy Flags (0x%X).", global.pn_flags);
        return false;
    }
    return true;
}

// The option bits that say that a tunable is not at its default.
constexpr struct {
    size_t offset;
    uint64_t bit;
} derived_bits[] = {
    {offsetof(mntargs_t, ma_max_dma_ios), MNTOPT_MAXDMAIOS_CHANGED},
    {offsetof(mntargs_t, ma_memalign), MNTOPT_MEMALIGN_CHANGED},
    {offsetof(mntargs_t, ma_blkbufsize), MNTOPT_BLKBUFSIZE_CHANGED},
    {offsetof(mntargs_t, ma_dircachesize), MNTOPT_DIRCACHESIZE_CHANGED},
    {offsetof(mntargs_t, ma_auto_dma_read_length), MNTOPT_AUTODMARD_CHANGED},
    {offsetof(mntargs_t, ma_auto_dma_write_length), MNTOPT_AUTODMAWR_CHANGED},
    {offsetof(mntargs_t, ma_buffercache_readahead), MNTOPT_READAHEAD_CHANGED},
    {offsetof(mntargs_t, ma_cachemax), MNTOPT_CACHE_CHANGED},
    {offsetof(mntargs_t, ma_cachelow), MNTOPT_CACHE_CHANGED},
    {offsetof(mntargs_t, ma_cachehigh), MNTOPT_CACHE_CHANGED},
    {offsetof(mntargs_t, ma_io_penalty_time), MNTOPT_IOPENALTY_CHANGED},
    {offsetof(mntargs_t, ma_io_retry_time), MNTOPT_IORETRY_CHANGED},
};

unsigned char lower(char c)
{
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
}

// Whether two texts are equal in the first `size` bytes, without regard to the case of ASCII
// letters. A null text equals nothing.
bool same_text(const char *left, const char *right, size_t size = SIZE_MAX)
{
    if (left == nullptr || right == nullptr) {
        return false;
    }
    for (size_t i = 0; i < size; ++i) {
        if (lower(left[i]) != lower(right[i])) {
            return false;
        }
        if (left[i] == '\0') {
            return true;
        }
    }
    return true;
}

// Keys of a file that hold option words instead of setting a row.
bool set_options(const char *key, uint64_t number, uint64_t *options)
{
    if (same_text(key, "mntoptions") || same_text(key, "MountOptions64")) {
        *options = number;
    } else if (same_text(key, "MountOptions")) {
        *options |= number;
    } else if (same_text(key, "MountOptions2")) {
        *options |= number << 32;
    } else {
        return false;
    }
    return true;
}

// Largest number that a file may give for a kind. The bound is signed: negative numbers pass, and
// are cut to the field's width.
int64_t bound_of(MntArgsType_t type)
{
    const size_t width = width_of(type);
    return width == 8 ? INT64_MAX : (int64_t{1} << (8 * width)) - 1;
}

// Sets a row's field from the value of an entry. Returns false for a value that does not fit.
bool set_field(mntargs_t *args, const MntArgsInf_t &row, const CfgEnt_t &entry)
{
    if (is_text(row)) {
        store_text(args, row, entry.KovaCfgVals[0]);
        return true;
    }
    const int64_t number = entry.KovaCfgInts[0];
    if (entry.KovaCfgIntsValid[0] != 1 || number > bound_of(row.mai_MntArgsType)) {
        return false;
    }
    if (number != 0 || row.mai_ValMin == 0) {
        store_number(args, row, static_cast<uint64_t>(number));
    }
    return true;
}

// A message buffer that may be missing.
struct ErrorText {
    char *buffer;
    size_t size;
};

// Fills a record from the entries of a file.
VoError_t load_entries(KovaCfg_t *file, const char *path, ErrorText error, mntargs_t *args,
                       MntArgsMask_t *used)
{
    CfgEnt_t *entry = nullptr;
    for (;;) {
        const VoError_t status = KovaCfgNext(file, &entry);
        if (status == no_entry) {
            return 0;
        }
        if (status != 0) {
            VoSnprintf(error.buffer, error.size, "Error(%d) processing %s.\n", status, path);
            return status;
        }
        const char *key = entry->KovaCfgName;
        if (entry->KovaCfgVals[0] == nullptr || key == nullptr) {
            continue;
        }
        if (strcmp(key, "LastErr") == 0 || strcmp(key, "LastErrTm") == 0) {
            return 0;
        }
        if (set_options(key, static_cast<uint64_t>(entry->KovaCfgInts[0]),
                        &args->ma_mountoptions)) {
            continue;
        }
        const auto *row =
            std::find_if(Tunables().begin(), Tunables().end(), [=](const MntArgsInf_t &candidate) {
                return same_text(candidate.mai_RegValName, key) ||
                       same_text(candidate.mai_Name, key);
            });
        if (row == Tunables().end()) {
            VoSnprintf(error.buffer, error.size, "Parameter '%s' is unknown in %s.\n", key, path);
            return invalid;
        }
        if (!set_field(args, *row, *entry)) {
            VoSnprintf(error.buffer, error.size, "Value '%s' is invalid in file %s.\n", key, path);
            return invalid;
        }
        *used |= bit_of(*row);
    }
}

} // namespace

unsigned int VoMntArgsValidate(mntargs_t *Mntargs, MntArgsMask_t *MntArgsMask, char *MsgBuff,
                               size_t MsgBuffSz)
{
    const MntArgsMask_t rows = MntArgsMask != nullptr ? *MntArgsMask : ~MntArgsMask_t{0};
    Findings findings{Message(MsgBuff, MsgBuffSz)};
    for (const MntArgsInf_t &row : Tunables()) {
        if ((rows & bit_of(row)) != 0) {
            check_range(*Mntargs, row, &findings);
        }
    }
    check_watermarks(*Mntargs, rows, &findings);
    const MntArgsInf_t &mount_point = row_of(offsetof(mntargs_t, ma_mntpoint));
    if ((rows & bit_of(mount_point)) != 0 &&
        check_mount_point(*Mntargs, findings.message.at(), findings.message.left()) != 0) {
        findings.add(mount_point);
    }
    if (MntArgsMask != nullptr) {
        *MntArgsMask = findings.failed;
    }
    return findings.count;
}

VoError_t VoMntArgsValidateTovan(mntargs_t *Mntargs, size_t MsgBuffSz, char *MsgBuff)
{
    Message message(MsgBuff, MsgBuffSz);
    return check_tovan(Mntargs, &message) ? 0 : out_of_range;
}

VoError_t _Validate_MntPnt(mntargs_t *Mntargs, char *MsgBuff, size_t MsgBuffSz)
{
    if (MsgBuff != nullptr && MsgBuffSz != 0) {
        MsgBuff[MsgBuffSz - 1] = '\0';
    }
    return check_mount_point(*Mntargs, MsgBuff, MsgBuffSz);
}

int VoMntArgsCmp(mntargs_t *MntargsSrc, mntargs_t *MntargsTarg, MntArgsMask_t *MntArgsDiff)
{
    MntArgsMask_t differing = 0;
    for (const MntArgsInf_t &row : Tunables()) {
        const bool alike =
            is_text(row)
                ? strncmp(text_in(*MntargsSrc, row), text_in(*MntargsTarg, row), text_size) == 0
                : number_in(*MntargsSrc, row) == number_in(*MntargsTarg, row);
        if (!alike) {
            differing |= bit_of(row);
        }
    }
    _VoMntArgsCmp_Tovan(MntargsSrc, MntargsTarg, &differing);
    *MntArgsDiff = differing;
    return differing != 0 ? 1 : 0;
}

int _VoMntArgsCmp_Tovan(mntargs_t *MntargsSrc, mntargs_t *MntargsTarg, MntArgsMask_t *MntArgsDiff)
{
    const size_t nics = std::min<size_t>(MntargsSrc->ma_numnicargs, MNTARGS_MAX_NICS);
    if (MntargsSrc->ma_numnicargs == MntargsTarg->ma_numnicargs &&
        memcmp(tovan_records(MntargsSrc), tovan_records(MntargsTarg),
               (nics + 1) * sizeof(ProxyNicArgs_t)) == 0) {
        return 0;
    }
    *MntArgsDiff |= bit_of(row_of(offsetof(mntargs_t, ma_numnicargs)));
    return 1;
}

void VoMntArgsMntOptsAutoSet(mntargs_t *Mntargs)
{
    uint64_t changed = 0;
    uint64_t derived = 0;
    for (const auto &[offset, bit] : derived_bits) {
        const MntArgsInf_t &row = row_of(offset);
        derived |= bit;
        if (number_in(*Mntargs, row) != row.mai_ValDflt) {
            changed |= bit;
        }
    }
    Mntargs->ma_mountoptions = (Mntargs->ma_mountoptions & ~derived) | changed;
}

MntArgsInf_t *MntArgsInfFindByName(const char *MaiName)
{
    return std::find_if(Tunables().begin(), Tunables().end(), [=](const MntArgsInf_t &row) {
        return strcmp(row.mai_Name, MaiName) == 0;
    });
}

void _MntArgsInfInit(void)
{
    int next = 0;
    for (MntArgsInf_t &row : Tunables()) {
        if (row.mai_Index == -1) {
            row.mai_Index = next++;
        }
    }
}

void _VoMntArgsInit_Tovan(ProxyNicArgs_t *NicArgsGlobal)
{
    NicArgsGlobal->pn_windowsize = 0;
    NicArgsGlobal->pn_sbsize = 256;
    NicArgsGlobal->pn_sbcount = 16;
    NicArgsGlobal->pn_lbcount = 24;
    NicArgsGlobal->pn_ndmons = 24;
    NicArgsGlobal->pn_xfertimeout = 200;
    NicArgsGlobal->pn_connecttimeout = 60;
}

mntargs_t *VoMntArgsAlloc(void)
{
    configure_branding();
    Block *block = koutil::callocate<Block>().release();
    if (block == nullptr) {
        return nullptr;
    }
    _VoMntArgsInit(&block->record);
    return &block->record;
}

void VoMntArgsFree(mntargs_t **Mntargs)
{
    free(*Mntargs);
    *Mntargs = nullptr;
}

void VoMntArgsCpy(mntargs_t *MntargsDst, mntargs_t *MntargsSrc)
{
    *MntargsDst = *MntargsSrc;
    if (_VoMntArgsCpy_Tovan(MntargsDst, MntargsSrc) != 0) {
        MntargsDst->ma_proxynicargs = 0; // not the source's
    }
}

mntargs_t *VoMntArgsClone(mntargs_t *MntargsSrc)
{
    mntargs_t *copy = VoMntArgsAlloc();
    if (copy != nullptr) {
        VoMntArgsCpy(copy, MntargsSrc);
    }
    return copy;
}

VoError_t VoMntArgsLoadFile(const char *CliFiPath, int ErrBuffSz, char *ErrBuff,
                            MntArgsMask_t *MntArgsUsed, mntargs_t **MntargsNew)
{
    const bool wanted = ErrBuff != nullptr && ErrBuffSz > 0;
    const ErrorText error = {wanted ? ErrBuff : nullptr,
                             wanted ? static_cast<size_t>(ErrBuffSz) : 0};
    if (wanted) {
        *ErrBuff = '\0';
    }
    *MntArgsUsed = 0;
    *MntargsNew = nullptr;
    koutil::MallocPtr<mntargs_t> args(VoMntArgsAlloc());
    if (!args) {
        VoSnprintf(error.buffer, error.size, "Error(%d) out of memory.\n", out_of_memory);
        return out_of_memory;
    }
    KovaCfg_t *file = nullptr;
    VoError_t status =
        KovaCfgOpen(CliFiPath, KOVA_OPEN_READ, CFGTYPE_ASSIGN, &file, error.buffer, error.size);
    if (status != 0) {
        return status;
    }
    MntArgsMask_t used = 0;
    status = load_entries(file, CliFiPath, error, args.get(), &used);
    KovaCfgClose(&file, 0, nullptr, 0);
    if (status == 0) {
        *MntArgsUsed = used;
        *MntargsNew = args.release();
    }
    return status;
}

void _VoMntArgsInit(mntargs_t *Mntargs)
{
    for (const MntArgsInf_t &row : Tunables()) {
        if (is_text(row)) {
            store_text(Mntargs, row, "");
        } else {
            store_number(Mntargs, row, row.mai_ValDflt);
        }
    }
    Mntargs->ma_mountoptions |= mntopt_initial;
    store_text(Mntargs, row_of(offsetof(mntargs_t, ma_fsdispname)), "KOVA");
    _VoMntArgsInit_Tovan(tovan_records(Mntargs));
    VoMntArgsMntOptsAutoSet(Mntargs);
}

VoError_t _VoMntArgsCpy_Tovan(mntargs_t *MntargsDst, mntargs_t *MntargsSrc)
{
    const uint32_t nics = MntargsSrc->ma_numnicargs;
    if (nics > MNTARGS_MAX_NICS) {
        return out_of_range;
    }
    ProxyNicArgs_t *records = tovan_records(MntargsDst);
    memmove(records, tovan_records(MntargsSrc), (nics + 1) * sizeof *records);
    MntargsDst->ma_proxynicargs = reinterpret_cast<uintptr_t>(records + 1);
    return 0;
}

VoError_t VoMntArgsEnumStart(VoMntArgsEnum_t **VoMntArgsEnum, mntargs_t **MntargsNew)
{
    *VoMntArgsEnum = nullptr;
    *MntargsNew = nullptr;
    auto walk = koutil::callocate<VoMntArgsEnum_t>();
    if (!walk) {
        return out_of_memory;
    }
    const VoError_t status = VoMntArgsEnumNext(walk.get(), MntargsNew);
    if (status == 0) {
        *VoMntArgsEnum = walk.release();
    }
    return status;
}

VoError_t VoMntArgsEnumNext(VoMntArgsEnum_t *, mntargs_t **MntargsNew)
{
    *MntargsNew = nullptr;
    return not_implemented;
}

void VoMntArgsEnumEnd(VoMntArgsEnum_t **VoMntArgsEnum)
{
    VoMntArgsEnum_t *walk = *VoMntArgsEnum;
    *VoMntArgsEnum = nullptr;
    if (walk != nullptr) {
        *walk = {};
        free(walk);
    }
}

VoError_t VoMntArgsLoad(const char *VoFsName, mntargs_t **MntargsNew)
{
    VoMntArgsEnum_t *walk = nullptr;
    VoError_t status = VoMntArgsEnumStart(&walk, MntargsNew);
    while (status == 0 && !same_text((*MntargsNew)->ma_fsname, VoFsName, text_size)) {
        VoMntArgsFree(MntargsNew);
        status = VoMntArgsEnumNext(walk, MntargsNew);
    }
    VoMntArgsEnumEnd(&walk);
    if (status != 0) {
        *MntargsNew = nullptr;
    }
    return status;
}

VoError_t VoMntArgsSave(mntargs_t *, MntArgsMask_t *)
{
    return not_implemented;
}

VoError_t VoMntArgsDelete(mntargs_t *)
{
    return not_implemented;
}

VoError_t VoMntArgsMkMntPath(mntargs_t *, char *, size_t)
{
    return not_supported;
}
