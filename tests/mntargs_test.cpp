// mntargs_test.cpp - the table of tunables, the checks, copies and files of mount arguments.
#include "koutil/mntargs.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace
{

struct Freeing {
    void operator()(mntargs_t *args) const { VoMntArgsFree(&args); }
};
using Record = std::unique_ptr<mntargs_t, Freeing>;

// A record with its defaults and a mount point: a valid one.
Record valid_record()
{
    Record args(VoMntArgsAlloc());
    strcpy(args->ma_mntpoint, "/data");
    return args;
}

ProxyNicArgs_t *tovan(const Record &args)
{
    return reinterpret_cast<ProxyNicArgs_t *>(args.get() + 1);
}

MntArgsMask_t bits(const std::vector<int> &rows)
{
    MntArgsMask_t mask = 0;
    for (int row : rows) {
        mask |= MntArgsMask_t{1} << row;
    }
    return mask;
}

struct Findings {
    unsigned int count;
    MntArgsMask_t failed;
    std::string text;
};

Findings validate(const Record &args, MntArgsMask_t rows = ~MntArgsMask_t{0})
{
    std::vector<char> text(8192, '\0');
    Findings result = {0, rows, ""};
    result.count = VoMntArgsValidate(args.get(), &result.failed, text.data(), text.size());
    result.text = text.data();
    return result;
}

// The message of a conflict or a failed range of the row `name`.
std::string paragraph(const char *name, const std::string &error, const std::string &range = "")
{
    const MntArgsInf_t *row = MntArgsInfFindByName(name);
    return std::string(row->mai_Title) + "\n\n" + row->mai_Help + "\n\nERROR: " + error + "\n\n" +
           range + "HELP KEYWORD: " + name + "\n";
}

struct Loaded {
    VoError_t status;
    MntArgsMask_t used;
    std::string message;
    Record args;
};

class MntArgsFile : public ::testing::Test
{
  protected:
    Loaded load_path(const std::string &path, int message_size = 512)
    {
        std::vector<char> message(512, 'x');
        Loaded result = {0, ~MntArgsMask_t{0}, "", nullptr};
        mntargs_t *args = reinterpret_cast<mntargs_t *>(1);
        const int descriptors = support::open_descriptors();
        result.status =
            VoMntArgsLoadFile(path.c_str(), message_size, message.data(), &result.used, &args);
        EXPECT_EQ(support::open_descriptors(), descriptors);
        result.args.reset(args);
        EXPECT_EQ(result.status == 0, args != nullptr);
        result.message.assign(message.data(), strnlen(message.data(), message.size()));
        return result;
    }
    Loaded load(std::string_view text)
    {
        support::write_file(path_, text);
        return load_path(path_);
    }
    std::string in_file(const char *format_start, const char *format_end) const
    {
        return format_start + path_ + format_end;
    }

    support::TempDir dir_;
    std::string path_ = dir_ / "options";
};

// The store of records, when a test gives it one.
std::vector<std::string> store;

} // namespace

// Replaces the library's own: a store with the file systems of `store`, or none.
VoError_t VoMntArgsEnumNext(VoMntArgsEnum_t *walk, mntargs_t **args)
{
    *args = nullptr;
    if (store.empty()) {
        return 38;
    }
    if (walk->md_Index == store.size()) {
        return 2;
    }
    *args = VoMntArgsAlloc();
    strcpy((*args)->ma_fsname, store[walk->md_Index++].c_str());
    return 0;
}

TEST(MntArgsTable, IsNumberedUniqueAndConsistent)
{
    std::set<std::string> names;
    size_t texts_without_newline = 0;
    for (int n = 0; n < 48; ++n) {
        const MntArgsInf_t &row = g_MntArgsInf[n];
        SCOPED_TRACE(row.mai_Name);
        EXPECT_EQ(row.mai_Index, n);
        EXPECT_TRUE(names.insert(row.mai_Name).second);
        EXPECT_EQ(MntArgsInfFindByName(row.mai_Name), &row);
        EXPECT_LE(row.mai_ValMin, row.mai_ValMax);
        if (row.mai_MntArgsType != MNTARGS_TYPE_CHARP) {
            EXPECT_GE(row.mai_ValDflt, row.mai_ValMin);
            EXPECT_LE(row.mai_ValDflt, row.mai_ValMax);
        }
        EXPECT_EQ(row.mai_MntArgsPlat, n == 43 ? 0x400001 : 0xFFFFFFFF);
        EXPECT_EQ(row.mai_RegValName == nullptr, bits({19, 20, 23, 24, 29}) >> n & 1);
        texts_without_newline += std::string(row.mai_Help).back() != '\n';
    }
    EXPECT_EQ(texts_without_newline, 20u);
    const MntArgsInf_t *last = MntArgsInfFindByName("threads");
    EXPECT_EQ(last, &g_MntArgsInf[48]);
    EXPECT_EQ(last->mai_Name, nullptr);
    EXPECT_EQ(last->mai_MntArgsType, MNTARGS_TYPE_INVAL);

    g_MntArgsInf[0].mai_Index = -1; // a row without a number gets the next one
    _MntArgsInfInit();
    _MntArgsInfInit();
    EXPECT_EQ(g_MntArgsInf[0].mai_Index, 0);
    EXPECT_EQ(g_MntArgsInf[1].mai_Index, 1);
}

TEST(MntArgs, ANewRecordHasItsDefaultsAndLacksOnlyAMountPoint)
{
    Record args(VoMntArgsAlloc());
    EXPECT_EQ(args->ma_ndmons, 12);
    EXPECT_EQ(args->ma_dmonprio, 16);
    EXPECT_EQ(args->ma_timeout, 100);
    EXPECT_EQ(args->ma_cachebufsize, 65536u);
    EXPECT_EQ(args->ma_auto_dma_read_length, 1048577u);
    EXPECT_STREQ(args->ma_fsdispname, "KOVA");
    EXPECT_STREQ(args->ma_fsname, "");
    EXPECT_EQ(args->ma_mountoptions, 0x80u);
    EXPECT_EQ(tovan(args)->pn_sbsize, 256u);
    EXPECT_EQ(tovan(args)->pn_connecttimeout, 60u);
    EXPECT_EQ(tovan(args)[48].pn_sbsize, 0u);
    Findings found = validate(args);
    EXPECT_EQ(found.count, 1u);
    EXPECT_EQ(found.failed, bits({34}));
    EXPECT_EQ(found.text, "No Mount Point specified.");
    EXPECT_EQ(VoMntArgsValidate(args.get(), nullptr, nullptr, 0), 1u);
}

TEST(Validate, AValidRecordTouchesOnlyTheLastByteOfTheBuffer)
{
    const Record args = valid_record();
    char text[16];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(VoMntArgsValidate(args.get(), nullptr, text, sizeof text), 0u);
    EXPECT_EQ(std::string(text), std::string(15, 'x'));
}

TEST(Validate, ReportsRangesInTheTextOfNumbers)
{
    const struct {
        const char *name;
        uint64_t value;
        const char *range;
    } cases[] = {
        {"Threads", 200, "VALID RANGE: 12 to 128\nDEFAULT VALUE: 12\n"},
        {"Threads", 11, "VALID RANGE: 12 to 128\nDEFAULT VALUE: 12\n"},
        {"DmonPrio", 0xFFFF, "VALID RANGE: 1 to 31\nDEFAULT VALUE: 16\n"}, // -1
        {"cachebufsize", 2097153, "VALID RANGE: 1 to 2M\nDEFAULT VALUE: 64K\n"},
        {"auto_dma_read_length", 0, "VALID RANGE: 1 to 999G\nDEFAULT VALUE: 1048577\n"},
        {"cacheholdsecs", 0, "VALID RANGE: 1 to 4294967295\nDEFAULT VALUE: 45\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Record args = valid_record();
        const MntArgsInf_t *row = MntArgsInfFindByName(c.name);
        const size_t width = row->mai_MntArgsType == MNTARGS_TYPE_UINT16   ? 2
                             : row->mai_MntArgsType == MNTARGS_TYPE_UINT32 ? 4
                                                                           : 8;
        memcpy(reinterpret_cast<char *>(args.get()) + row->mai_MntArgsOff, &c.value, width);
        const Findings found = validate(args);
        EXPECT_EQ(found.count, 1u);
        EXPECT_EQ(found.failed, bits({row->mai_Index}));
        EXPECT_EQ(found.text, paragraph(c.name, "Value out of range.", c.range));
        EXPECT_EQ(validate(args, ~bits({row->mai_Index})).count, 0u);
    }
}

TEST(Validate, ChecksWatermarksAgainstEachOther)
{
    const std::string crossed =
        paragraph("bufferlowdirty", "Low Water Mark is not less than the High Water Mark");
    const std::string minimum = paragraph("bufferhighdirty", "The minimum High Water Mark is 2.");
    const std::string above =
        paragraph("bufferhighdirty", "High Water Mark is greater than Buffer Cache size");
    const struct {
        uint32_t low, high, cap;
        std::string text;
        std::vector<int> failed;
    } cases[] = {
        {10, 10, 32, crossed, {16}},
        {9, 10, 32, "", {}},
        {10, 0, 32, "", {}}, // no watermarks
        {0, 33, 32, above, {15}},
        {0, 32, 32, "", {}},
        {1, 1, 32, crossed + minimum, {15, 16}},
        {0,
         1,
         0,
         paragraph("buffercachecap", "Value out of range.",
                   "VALID RANGE: 1 to 4294967295\nDEFAULT VALUE: 32\n") +
             minimum + above,
         {14, 15}},
    };
    for (const auto &c : cases) {
        const Record args = valid_record();
        args->ma_bufferlowdirty = c.low;
        args->ma_bufferhighdirty = c.high;
        args->ma_buffercachecap = c.cap;
        const Findings found = validate(args);
        EXPECT_EQ(found.text, c.text);
        EXPECT_EQ(found.failed, bits(c.failed));
        EXPECT_EQ(validate(args, bits({0})).count, 0u); // only where the row is asked for
    }
}

TEST(Validate, TextsWithoutATerminatorAreTooLong)
{
    const Record args = valid_record();
    memset(args->ma_mntpoint, 'm', sizeof args->ma_mntpoint);
    memset(args->ma_fsname, 'f', sizeof args->ma_fsname);
    const Findings found = validate(args);
    EXPECT_EQ(found.count, 3u);
    EXPECT_EQ(found.failed, bits({33, 34}));
    const char *range = "VALID RANGE: 1 to 255\nDEFAULT VALUE: 0\n";
    EXPECT_EQ(found.text, paragraph("fsname", "Too many characters.", range) +
                              paragraph("mntpoint", "Too many characters.", range) +
                              "Mount point name is too long:\n'" + std::string(256, 'm') + "'");
    char text[4] = "abc";
    EXPECT_EQ(_Validate_MntPnt(args.get(), text, sizeof text), 36);
    EXPECT_STREQ(text, "Mou");
    args->ma_mntpoint[0] = '\0';
    EXPECT_EQ(_Validate_MntPnt(args.get(), nullptr, 0), 22);
}

TEST(Validate, MessagesStayWithinAnyBuffer)
{
    const Record args = valid_record();
    args->ma_ndmons = 0;
    args->ma_mntpoint[0] = '\0';
    const std::string whole = validate(args).text;
    for (size_t size = 1; size <= whole.size() + 4; ++size) {
        auto text = std::make_unique<char[]>(size); // the sanitizer guards its end
        MntArgsMask_t mask = ~MntArgsMask_t{0};
        EXPECT_EQ(VoMntArgsValidate(args.get(), &mask, text.get(), size), 2u);
        EXPECT_EQ(mask, bits({0, 34}));
        EXPECT_EQ(std::string(text.get()), size < 2 ? "" : whole.substr(0, size - 2));
    }
}

TEST(ValidateTovan, ReportsTheFirstFault)
{
    const auto invalid = [](const std::string &title, const std::string &range) {
        return "Invalid value for '" + title + "'\nValid range: " + range;
    };
    constexpr uint64_t client = MNTOPT_TOVAN_CLIENT;
    constexpr uint64_t server = MNTOPT_TOVAN_SERVER;
    const struct {
        uint64_t options;
        uint32_t nics;
        uint32_t ProxyNicArgs_t::*field;
        uint32_t good, bad;
        std::string message;
    } cases[] = {
        {client | server, 0, nullptr, 0, 0, "At least 1 NIC must be selected\nfor TOVAN servers"},
        {client | server, 1, nullptr, 0, 0, "TOVAN Cannot be both Client and Server."},
        {client, 0, &ProxyNicArgs_t::pn_connecttimeout, 40, 39,
         invalid("TOVAN Connection Timeout", "40 to 600 seconds")},
        {server, 1, &ProxyNicArgs_t::pn_windowsize, 16384, 16385,
         invalid("TOVAN TCP Window Size", "0K to 16384K")},
        {0, 0, &ProxyNicArgs_t::pn_sbsize, 1024, 1025,
         invalid("TOVAN Transfer Buffer Size", "32K to 1024K")},
        {0, 0, &ProxyNicArgs_t::pn_sbcount, 4, 3,
         invalid("TOVAN Transfer Buffer Count", "4 to 128")},
        {0, 0, &ProxyNicArgs_t::pn_ndmons, 256, 257, invalid("TOVAN Thread Count", "2 to 256")},
        {0, 0, &ProxyNicArgs_t::pn_lbcount, 512, 4000000000,
         invalid("TOVAN Buffer Count", "4 to 512")},
        {0, 0, &ProxyNicArgs_t::pn_xfertimeout, 20, 19,
         invalid("TOVAN Transfer Timeout", "20 to 600 seconds")},
        {0, 0, &ProxyNicArgs_t::pn_flags, 3, 0xAB, "Invalid value for Proxy Flags (0xAB)."},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        const Record args = valid_record();
        args->ma_mountoptions |= c.options;
        args->ma_numnicargs = c.nics;
        char text[128] = "";
        if (c.field != nullptr) {
            tovan(args)->*c.field = c.good;
            EXPECT_EQ(VoMntArgsValidateTovan(args.get(), sizeof text, text), 0);
            tovan(args)->*c.field = c.bad;
        }
        EXPECT_EQ(VoMntArgsValidateTovan(args.get(), sizeof text, text), 22);
        EXPECT_EQ(text, c.message);
        char small[8];
        EXPECT_EQ(VoMntArgsValidateTovan(args.get(), sizeof small, small), 22);
        EXPECT_EQ(small, c.message.substr(0, 6));
    }
}

TEST(Compare, FindsWhatDiffersAndWhatACopyKeeps)
{
    const Record args = valid_record();
    args->ma_numnicargs = 2;
    strcpy(tovan(args)[2].pn_macaddr, "aa:bb");
    Record copy(VoMntArgsClone(args.get()));
    MntArgsMask_t diff = 1;
    EXPECT_EQ(VoMntArgsCmp(args.get(), copy.get(), &diff), 0);
    EXPECT_EQ(diff, 0u);
    EXPECT_EQ(copy->ma_proxynicargs, reinterpret_cast<uintptr_t>(tovan(copy) + 1));
    EXPECT_STREQ(tovan(copy)[2].pn_macaddr, "aa:bb");

    strcpy(copy->ma_fsname, "DATA1");
    copy->ma_dmonprio = -1;
    copy->ma_max_dma += uint64_t{1} << 40;
    tovan(copy)[3].pn_flags = 1; // of no interface in use
    EXPECT_EQ(VoMntArgsCmp(args.get(), copy.get(), &diff), 1);
    EXPECT_EQ(diff, bits({2, 33, 40}));
    tovan(copy)[2].pn_flags = 1;
    EXPECT_EQ(VoMntArgsCmp(args.get(), copy.get(), &diff), 1);
    EXPECT_EQ(diff, bits({2, 33, 36, 40}));

    VoMntArgsCpy(copy.get(), copy.get());
    EXPECT_EQ(tovan(copy)[3].pn_flags, 1u);
    args->ma_numnicargs = 4000000000; // more than the block has
    VoMntArgsCpy(copy.get(), args.get());
    EXPECT_EQ(copy->ma_proxynicargs, 0u);
    EXPECT_EQ(tovan(copy)[2].pn_flags, 1u);
    EXPECT_EQ(_VoMntArgsCpy_Tovan(copy.get(), args.get()), 22);
    EXPECT_EQ(VoMntArgsCmp(args.get(), copy.get(), &diff), 1);
    EXPECT_EQ(diff, bits({36}));
}

TEST(AutoSet, DerivesTheBitsAndKeepsTheOthers)
{
    const Record args = valid_record();
    args->ma_mountoptions = ~uint64_t{0};
    VoMntArgsMntOptsAutoSet(args.get());
    EXPECT_EQ(args->ma_mountoptions, ~uint64_t{0x3002F19000});
    args->ma_mountoptions = 0;
    args->ma_cachelow = 1000;
    VoMntArgsMntOptsAutoSet(args.get());
    EXPECT_EQ(args->ma_mountoptions, MNTOPT_CACHE_CHANGED);
    args->ma_max_dma_ios = args->ma_memalign = args->ma_blkbufsize = args->ma_dircachesize = 1;
    args->ma_auto_dma_read_length = args->ma_auto_dma_write_length = 1;
    args->ma_buffercache_readahead = args->ma_io_penalty_time = args->ma_io_retry_time = 1;
    VoMntArgsMntOptsAutoSet(args.get());
    EXPECT_EQ(args->ma_mountoptions, 0x3002F19000u);
    _VoMntArgsInit(args.get());
    EXPECT_EQ(args->ma_mountoptions, 0x80u);
    EXPECT_STREQ(args->ma_mntpoint, "");
}

TEST_F(MntArgsFile, SetsFieldsByEitherKeyInAnyCase)
{
    const Loaded file = load("# cluster\nTHREADS=16\nCacheBufSize=128k\nReTrans=3\n=5\nalone\n"
                             "DmonPrio=-1\nmnt_retry=0\naiothreads=0\nFSNAME=data 1\nmax_dma=0x10\n"
                             "MntPoint=" +
                             std::string(300, 'm') + "\nfsdispname=X");
    ASSERT_EQ(file.status, 0) << file.message;
    EXPECT_EQ(file.message, "");
    EXPECT_EQ(file.args->ma_ndmons, 16);
    EXPECT_EQ(file.args->ma_cachebufsize, 131072u);
    EXPECT_EQ(file.args->ma_retrans, 3);
    EXPECT_EQ(file.args->ma_dmonprio, -1);
    EXPECT_EQ(file.args->ma_mntretry, 0);
    EXPECT_EQ(file.args->ma_naiodmons, 8); // 0 is below its range
    EXPECT_STREQ(file.args->ma_fsname, "data 1");
    EXPECT_EQ(file.args->ma_max_dma, 16u);
    EXPECT_EQ(std::string(file.args->ma_mntpoint), std::string(255, 'm'));
    EXPECT_STREQ(file.args->ma_fsdispname, "X");
    EXPECT_EQ(file.used, bits({0, 1, 2, 3, 7, 13, 32, 33, 34, 40}));
}

TEST_F(MntArgsFile, CollectsOptionWords)
{
    EXPECT_EQ(load("MountOptions=16\nMOUNTOPTIONS2=1\n").args->ma_mountoptions, 0x100000090u);
    EXPECT_EQ(load("MountOptions=16\nmntoptions=5").args->ma_mountoptions, 5u);
    const Loaded file = load("MountOptions2=-1\nmountoptions64=abc\nMountOptions2=0x80000000\n");
    EXPECT_EQ(file.args->ma_mountoptions, 0x8000000000000000u);
    EXPECT_EQ(file.used, 0u);
}

TEST_F(MntArgsFile, RefusesWhatItDoesNotUnderstand)
{
    const std::string unknown = in_file("' is unknown in ", ".\n");
    const std::string bad = in_file("' is invalid in file ", ".\n");
    const struct {
        std::string text;
        VoError_t status;
        std::string message;
    } cases[] = {
        {"Threads=70000", 11, "Value 'Threads" + bad},
        {"Threads=abc", 11, "Value 'Threads" + bad},
        {"CacheMax=4294967296", 11, "Value 'CacheMax" + bad},
        {"Threads = 16", 11, "Parameter 'Threads " + unknown},
        {"Threads=16\nnone=1\n", 11, "Parameter 'none" + unknown},
        {"# @Owner=adm", 11, "Parameter '@Owner" + unknown},
        {"lasterr=5", 11, "Parameter 'lasterr" + unknown},
        {"LastErr\nnone=1", 11, "Parameter 'none" + unknown}, // without a value it is no end
        {"LastErr=5\nnone=1", 0, ""},
        {"LastErrTm=5\nnone=1", 0, ""},
        {"Threads=65535", 0, ""}, // no range is checked here
        {"CacheMax=-1", 0, ""},
        {"\"\"\"", 0, ""},
        {std::string("Threads=12\0\n", 12), 11, "Invalid character in file."},
        {"Threads=" + std::string(5000, '1') + "\n", 22, "Line is too long."},
    };
    for (const auto &c : cases) {
        const Loaded file = load(c.text);
        EXPECT_EQ(file.status, c.status) << c.text;
        EXPECT_EQ(file.message, c.message) << c.text;
        EXPECT_TRUE(c.status == 0 || file.used == 0);
    }
    EXPECT_EQ(load_path(path_, 8).message, "Line is");
    EXPECT_EQ(load_path(path_, -5).message, std::string(512, 'x'));
    const Loaded missing = load_path(dir_ / "none");
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.message, "KOVA Cfg: Error(2) opening '" + (dir_ / "none") + "'");
}

TEST(Store, IsNotThere)
{
    store.clear();
    mntargs_t *args = reinterpret_cast<mntargs_t *>(1);
    EXPECT_EQ(VoMntArgsLoad("data1", &args), 38);
    EXPECT_EQ(args, nullptr);
    EXPECT_EQ(VoMntArgsSave(nullptr, nullptr), 38);
    EXPECT_EQ(VoMntArgsDelete(nullptr), 38);
    EXPECT_EQ(VoMntArgsMkMntPath(nullptr, nullptr, 0), 95);
}

TEST(Store, IsSearchedByNameWhereThereIsOne)
{
    store = {"home", "Data1", "scratch"};
    mntargs_t *args = nullptr;
    EXPECT_EQ(VoMntArgsLoad("dATA1", &args), 0);
    ASSERT_NE(args, nullptr);
    EXPECT_STREQ(args->ma_fsname, "Data1");
    VoMntArgsFree(&args);
    EXPECT_EQ(args, nullptr);
    EXPECT_EQ(VoMntArgsLoad("data", &args), 2);
    EXPECT_EQ(args, nullptr);
    store.clear();
}
