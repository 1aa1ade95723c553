// mntargs_test.cpp - the table of tunables, the checks, copies and files of mount arguments.
#include "koutil/koutil.hpp"

#include "support/support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace
{

using Record = ko::MountArgs;

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

// Expects `count` problems in the rows `failed`, and their text.
void expect_problems(const Record &args, unsigned int count, const std::vector<int> &failed,
                     const std::string &text)
{
    std::vector<char> message(8192, '\0');
    MntArgsMask_t mask = ~MntArgsMask_t{0};
    EXPECT_EQ(VoMntArgsValidate(args.get(), &mask, message.data(), message.size()), count);
    EXPECT_EQ(mask, bits(failed));
    EXPECT_EQ(message.data(), text);
    mask = ~mask; // the rows without a problem
    EXPECT_EQ(VoMntArgsValidate(args.get(), &mask, nullptr, 0), 0u);
}

// The message of a conflict or a failed range of the row `name`.
std::string paragraph(const char *name, const std::string &error, const std::string &range = "")
{
    const MntArgsInf_t *row = MntArgsInfFindByName(name);
    return std::string(row->mai_Title) + "\n\n" + row->mai_Help + "\n\nERROR: " + error + "\n\n" +
           range + "HELP KEYWORD: " + name + "\n";
}

class MntArgsFile : public ::testing::Test
{
  protected:
    // Loads a file; `used_` and `message_` receive what it sets and says.
    Record load_path(const std::string &path, VoError_t status, int message_size = 512)
    {
        char message[512];
        memset(message, 'x', sizeof message);
        used_ = ~MntArgsMask_t{0};
        mntargs_t *args = reinterpret_cast<mntargs_t *>(1);
        const int descriptors = support::open_descriptors();
        EXPECT_EQ(VoMntArgsLoadFile(path.c_str(), message_size, message, &used_, &args), status);
        EXPECT_EQ(support::open_descriptors(), descriptors);
        EXPECT_EQ(status == 0, args != nullptr);
        EXPECT_TRUE(status == 0 || used_ == 0);
        message_.assign(message, strnlen(message, sizeof message));
        return Record(args);
    }
    Record load(std::string_view text, VoError_t status = 0)
    {
        support::write_file(path_, text);
        return load_path(path_, status);
    }

    support::TempDir dir_;
    std::string path_ = dir_ / "options";
    MntArgsMask_t used_ = 0;
    std::string message_;
};

} // namespace

TEST(MntArgsTable, IsNumberedUniqueAndConsistent)
{
    for (int n = 0; n < 48; ++n) {
        const MntArgsInf_t &row = g_MntArgsInf[n];
        SCOPED_TRACE(row.mai_Name);
        EXPECT_EQ(row.mai_Index, n);
        EXPECT_EQ(MntArgsInfFindByName(row.mai_Name), &row);
        EXPECT_LE(row.mai_ValDflt, row.mai_ValMax);
        EXPECT_TRUE(row.mai_ValDflt >= row.mai_ValMin || row.mai_MntArgsType == MNTARGS_TYPE_CHARP);
        EXPECT_EQ(row.mai_MntArgsPlat, n == 43 ? 0x400001 : 0xFFFFFFFF);
        EXPECT_EQ(row.mai_RegValName == nullptr, bits({19, 20, 23, 24, 29}) >> n & 1);
    }
    EXPECT_EQ(MntArgsInfFindByName("threads"), &g_MntArgsInf[48]);
    EXPECT_EQ(g_MntArgsInf[48].mai_Name, nullptr);

    g_MntArgsInf[0].mai_Index = -1; // a row without a number gets the next one
    _MntArgsInfInit();
    EXPECT_EQ(g_MntArgsInf[0].mai_Index, 0);
    EXPECT_EQ(g_MntArgsInf[1].mai_Index, 1);
}

TEST(MntArgs, ANewRecordHasItsDefaultsAndLacksOnlyAMountPoint)
{
    Record args(VoMntArgsAlloc());
    EXPECT_EQ(args->ma_dmonprio, 16);
    EXPECT_EQ(args->ma_cachebufsize, 65536u);
    EXPECT_EQ(args->ma_auto_dma_read_length, 1048577u);
    EXPECT_STREQ(args->ma_fsdispname, "KOVA");
    EXPECT_EQ(args->ma_mountoptions, 0x80u);
    EXPECT_EQ(tovan(args)->pn_connecttimeout, 60u);
    EXPECT_EQ(tovan(args)[48].pn_sbsize, 0u);
    expect_problems(args, 1, {34}, "No Mount Point specified.");
}

TEST_F(MntArgsFile, ValidationReportsRangesInTheTextOfNumbers)
{
    const struct {
        const char *name, *value, *range;
    } cases[] = {
        {"Threads", "200", "12 to 128\nDEFAULT VALUE: 12\n"},
        {"Threads", "11", "12 to 128\nDEFAULT VALUE: 12\n"},
        {"DmonPrio", "-1", "1 to 31\nDEFAULT VALUE: 16\n"},
        {"cachebufsize", "2097153", "1 to 2M\nDEFAULT VALUE: 64K\n"},
        {"auto_dma_read_length", "-1", "1 to 999G\nDEFAULT VALUE: 1048577\n"},
        {"cachelowwater", "1", "2 to 2147483647\nDEFAULT VALUE: 28K\n"},
    };
    for (const auto &c : cases) {
        expect_problems(
            load(std::string("MntPoint=/\n") + c.name + "=" + c.value), 1,
            {MntArgsInfFindByName(c.name)->mai_Index},
            paragraph(c.name, "Value out of range.", std::string("VALID RANGE: ") + c.range));
    }
}

TEST(Validate, ChecksWatermarksAgainstEachOther)
{
    const std::string crossed =
        paragraph("bufferlowdirty", "Low Water Mark is not less than the High Water Mark");
    const std::string minimum = paragraph("bufferhighdirty", "The minimum High Water Mark is 2.");
    const std::string above =
        paragraph("bufferhighdirty", "High Water Mark is greater than Buffer Cache size");
    const std::string no_cache = paragraph("buffercachecap", "Value out of range.",
                                           "VALID RANGE: 1 to 4294967295\nDEFAULT VALUE: 32\n");
    const struct {
        uint32_t low, high, cap;
        unsigned int count;
        std::vector<int> failed;
        std::string text;
    } cases[] = {
        {10, 10, 32, 1, {16}, crossed},
        {9, 10, 32, 0, {}, ""},
        {10, 0, 32, 0, {}, ""}, // no watermarks
        {0, 33, 32, 1, {15}, above},
        {0, 32, 32, 0, {}, ""},
        {1, 1, 32, 2, {15, 16}, crossed + minimum},
        {0, 1, 0, 3, {14, 15}, no_cache + minimum + above},
    };
    for (const auto &c : cases) {
        const Record args = valid_record();
        args->ma_bufferlowdirty = c.low;
        args->ma_bufferhighdirty = c.high;
        args->ma_buffercachecap = c.cap;
        expect_problems(args, c.count, c.failed, c.text);
    }
}

TEST(Validate, TextsWithoutATerminatorAreTooLong)
{
    const Record args = valid_record();
    memset(args->ma_mntpoint, 'm', sizeof args->ma_mntpoint);
    memset(args->ma_fsname, 'f', sizeof args->ma_fsname);
    const char *range = "VALID RANGE: 1 to 255\nDEFAULT VALUE: 0\n";
    expect_problems(args, 3, {33, 34},
                    paragraph("fsname", "Too many characters.", range) +
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
    char untouched[] = "xxxx";
    EXPECT_EQ(VoMntArgsValidate(args.get(), nullptr, untouched, 4), 0u);
    EXPECT_STREQ(untouched, "xxx"); // but for its last byte
    args->ma_ndmons = 0;
    args->ma_mntpoint[0] = '\0';
    const std::string whole =
        paragraph("Threads", "Value out of range.", "VALID RANGE: 12 to 128\nDEFAULT VALUE: 12\n") +
        "No Mount Point specified.";
    char text[300]; // the fuzzer tries every size
    EXPECT_EQ(VoMntArgsValidate(args.get(), nullptr, text, 100), 2u);
    EXPECT_EQ(text, whole.substr(0, 98));
}

TEST(ValidateTovan, ReportsTheFirstFault)
{
    constexpr uint64_t client = MNTOPT_TOVAN_CLIENT;
    constexpr uint64_t server = MNTOPT_TOVAN_SERVER;
    const Record record = valid_record();
    char text[128] = "";
    const auto expect_fault = [&](const std::string &message) {
        EXPECT_EQ(VoMntArgsValidateTovan(record.get(), sizeof text, text), 22);
        EXPECT_EQ(text, message);
        EXPECT_EQ(VoMntArgsValidateTovan(record.get(), 8, text), 22);
        EXPECT_EQ(text, message.substr(0, 6));
    };
    record->ma_mountoptions |= client | server;
    expect_fault("At least 1 NIC must be selected\nfor TOVAN servers");
    record->ma_numnicargs = 1;
    expect_fault("TOVAN Cannot be both Client and Server.");
    record->ma_mountoptions = server;
    const struct {
        uint32_t ProxyNicArgs_t::*field;
        uint32_t good, bad;
        std::string title, range;
    } cases[] = {
        // from the last check to the first, so that each fault hides those before it
        {&ProxyNicArgs_t::pn_xfertimeout, 20, 19, "Transfer Timeout", "20 to 600 seconds"},
        {&ProxyNicArgs_t::pn_lbcount, 512, 4000000000, "Buffer Count", "4 to 512"},
        {&ProxyNicArgs_t::pn_ndmons, 256, 257, "Thread Count", "2 to 256"},
        {&ProxyNicArgs_t::pn_sbcount, 4, 3, "Transfer Buffer Count", "4 to 128"},
        {&ProxyNicArgs_t::pn_sbsize, 1024, 1025, "Transfer Buffer Size", "32K to 1024K"},
        {&ProxyNicArgs_t::pn_windowsize, 16384, 16385, "TCP Window Size", "0K to 16384K"},
        {&ProxyNicArgs_t::pn_connecttimeout, 40, 39, "Connection Timeout", "40 to 600 seconds"},
    };
    for (const auto &c : cases) {
        tovan(record)->*c.field = c.good;
    }
    tovan(record)->pn_flags = 3;
    EXPECT_EQ(VoMntArgsValidateTovan(record.get(), sizeof text, text), 0);
    tovan(record)->pn_flags = 0xAB;
    expect_fault("Invalid value for Proxy Flags (0xAB).");
    for (const auto &c : cases) {
        tovan(record)->*c.field = c.bad;
        expect_fault("Invalid value for 'TOVAN " + c.title + "'\nValid range: " + c.range);
    }
}

TEST(Compare, FindsWhatDiffersAndWhatACopyKeeps)
{
    const Record args = valid_record();
    args->ma_numnicargs = 2;
    strcpy(tovan(args)[2].pn_macaddr, "aa:bb");
    Record copy(VoMntArgsClone(args.get()));
    const auto expect_difference = [&](const std::vector<int> &rows) {
        MntArgsMask_t diff = 1;
        EXPECT_EQ(VoMntArgsCmp(args.get(), copy.get(), &diff), rows.empty() ? 0 : 1);
        EXPECT_EQ(diff, bits(rows));
    };
    expect_difference({});
    EXPECT_EQ(copy->ma_proxynicargs, reinterpret_cast<uintptr_t>(tovan(copy) + 1));
    strcpy(copy->ma_fsname, "DATA1");
    copy->ma_dmonprio = -1;
    copy->ma_max_dma += uint64_t{1} << 40;
    tovan(copy)[3].pn_flags = 1; // of no interface in use
    expect_difference({2, 33, 40});
    tovan(copy)[2].pn_flags = 1;
    expect_difference({2, 33, 36, 40});

    VoMntArgsCpy(copy.get(), copy.get());
    args->ma_numnicargs = 4000000000; // more than the block has
    VoMntArgsCpy(copy.get(), args.get());
    EXPECT_EQ(copy->ma_proxynicargs, 0u);
    EXPECT_EQ(_VoMntArgsCpy_Tovan(copy.get(), args.get()), 22);
    EXPECT_EQ(tovan(copy)[2].pn_flags, 1u);
    expect_difference({36});
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
    const Record args = load("# cluster\nTHREADS=16\nCacheBufSize=128k\nReTrans=3\n=5\nalone\n"
                             "DmonPrio=-1\nmnt_retry=0\naiothreads=0\nFSNAME=data 1\nmax_dma=0x10\n"
                             "MntPoint=" +
                             std::string(300, 'm') + "\nfsdispname=X");
    EXPECT_EQ(message_, "");
    EXPECT_EQ(args->ma_ndmons, 16);
    EXPECT_EQ(args->ma_cachebufsize, 131072u);
    EXPECT_EQ(args->ma_retrans, 3);
    EXPECT_EQ(args->ma_dmonprio, -1);
    EXPECT_EQ(args->ma_mntretry, 0);
    EXPECT_EQ(args->ma_naiodmons, 8); // 0 is below its range
    EXPECT_STREQ(args->ma_fsname, "data 1");
    EXPECT_EQ(args->ma_max_dma, 16u);
    EXPECT_EQ(std::string(args->ma_mntpoint), std::string(255, 'm'));
    EXPECT_STREQ(args->ma_fsdispname, "X");
    EXPECT_EQ(used_, bits({0, 1, 2, 3, 7, 13, 32, 33, 34, 40}));
}

TEST_F(MntArgsFile, CollectsOptionWords)
{
    EXPECT_EQ(load("MountOptions=16\nMOUNTOPTIONS2=1\n")->ma_mountoptions, 0x100000090u);
    EXPECT_EQ(load("MountOptions=16\nmntoptions=5")->ma_mountoptions, 5u);
    EXPECT_EQ(
        load("MountOptions2=-1\nmountoptions64=abc\nMountOptions2=0x80000000\n")->ma_mountoptions,
        0x8000000000000000u);
    EXPECT_EQ(used_, 0u);
}

TEST_F(MntArgsFile, RefusesWhatItDoesNotUnderstand)
{
    const std::string unknown = "' is unknown in " + path_ + ".\n";
    const std::string bad = "' is invalid in file " + path_ + ".\n";
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
        load(c.text, c.status);
        EXPECT_EQ(message_, c.message) << c.text;
    }
    load_path(path_, 22, 8);
    EXPECT_EQ(message_, "Line is");
    load_path(path_, 22, -5);
    EXPECT_EQ(message_, std::string(512, 'x'));
    load_path(dir_ / "none", 2);
    EXPECT_EQ(message_, "KOVA Cfg: Error(2) opening '" + (dir_ / "none") + "'");
}

TEST(Store, IsNotThere)
{
    mntargs_t *args = reinterpret_cast<mntargs_t *>(1);
    EXPECT_EQ(VoMntArgsLoad("data1", &args), 38);
    EXPECT_EQ(args, nullptr);
    EXPECT_EQ(VoMntArgsSave(nullptr, nullptr) + VoMntArgsDelete(nullptr), 2 * 38);
    EXPECT_EQ(VoMntArgsMkMntPath(nullptr, nullptr, 0), 95);
}
