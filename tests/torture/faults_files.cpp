// faults_files.cpp - scenarios of files: plain ones, configuration, logs, progress.
#include "torture/faults.h"

#include "koutil/koutil.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

#define TRY(expression)                                                                            \
    if (const int failed = (expression); failed != 0) {                                            \
        return failed;                                                                             \
    }

char message[512];

// A file that was to be replaced is whole: the new one after a success, else either.
int replaced(const std::string &path, const std::string &before, const std::string &after,
             int status)
{
    const std::string text = get(path);
    if (text != after && (status == 0 || text != before)) {
        wrong("%s holds '%.200s' after status %d", path.c_str(), text.c_str(), status);
    }
    return status;
}

// ---- plain files ----

int write_all(KovaHndl_t *file, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        KovaSz_t size = text.size() - done;
        TRY(KovaWrite(file, text.data() + done, &size));
        EXPECT(size <= text.size() - done);
        done += size;
    }
    return 0;
}

int file_read_write()
{
    const std::string text = "0123456789\n";
    ko::File file;
    TRY(KovaOpen("f", KOVA_OPEN_RDWR | KOVA_OPEN_CREATE, file.out()));
    TRY(write_all(file.get(), text));
    TRY(KovaSeek(file.get(), 0));
    std::string seen;
    for (KovaSz_t size = 1; size != 0;) {
        char part[32];
        size = sizeof part;
        TRY(KovaRead(file.get(), part, &size));
        seen.append(part, size);
    }
    EXPECT(seen == text);
    TRY(KovaFTruncate(file.get(), 4));
    EXPECT(get("f") == "0123");
    TRY(file.close());
    EXPECT(file.get() == nullptr);
    return 0;
}

int file_map()
{
    put("f", std::string(8192, 'x'));
    ko::File file;
    TRY(KovaOpen("f", KOVA_OPEN_RDWR, file.out()));
    void *bytes = nullptr;
    if (const int status = KovaMmap(file.get(), 4096, 4096, &bytes)) {
        EXPECT(bytes == nullptr);
        return status;
    }
    memset(bytes, 'y', 4096);
    EXPECT(get("f") == std::string(4096, 'x') + std::string(4096, 'y'));
    const int status = KovaMunmap(file.get(), 4096, &bytes);
    EXPECT(bytes == nullptr);
    return status;
}

int file_map_by_name()
{
    put("f", std::string(4096, 'x'));
    char error[KO_MMAP_ERR_SIZE];
    void *bytes = my_mmap("f", 0, 4096, error);
    EXPECT((bytes == nullptr) == (error[0] != '\0'));
    if (bytes == nullptr) {
        return -1;
    }
    EXPECT(*static_cast<char *>(bytes) == 'x');
    const int status = my_munmap(bytes, 4096, 0, error);
    EXPECT((status != 0) == (error[0] != '\0'));
    return status;
}

int directories()
{
    TRY(KovaMkPath("a/b\\c/d"));
    EXPECT(std::filesystem::is_directory("a/b/c/d"));
    put("a/b/f", "x");
    put("a/b/c/g", "y");
    TRY(KovaRmPath("a"));
    EXPECT(!std::filesystem::exists("a"));
    TRY(KovaMkdir("e"));
    EXPECT(std::filesystem::is_directory("e"));
    TRY(KovaDeleteDir("e"));
    EXPECT(!std::filesystem::exists("e"));
    return 0;
}

int file_copy()
{
    const std::string text(20000, 'q');
    put("from", text + "end");
    const int status = KovaFileCopy("from", "to");
    EXPECT(get("from") == text + "end");
    EXPECT(status != 0 || get("to") == text + "end");
    return status;
}

int listing()
{
    put("one", "1");
    put("two", "22");
    int seen = 0;
    char name[64];
    KovaStat_t stat;
    KovaDirEnum_t *walk = nullptr;
    int status = KovaDirEnumStart(".", sizeof name, name, &stat, &walk);
    EXPECT((status == 0) == (walk != nullptr));
    for (; status == 0; status = KovaDirEnumNext(walk, sizeof name, name, &stat)) {
        EXPECT(strcmp(name, "two") != 0 || stat.KovaSz == 2);
        seen++;
    }
    KovaDirEnumEnd(&walk);
    EXPECT(walk == nullptr && seen <= 4);
    return status == 2 && seen == 4 ? 0 : status;
}

int statuses()
{
    put("f", "text");
    KovaStat_t stat;
    KovaStatFS_t fs;
    if (const int status = KovaStat("f", &stat)) {
        EXPECT(stat.KovaSz == 0 && stat.KovaFiType == KOVA_FITYPE_OTHER);
        return status;
    }
    EXPECT(stat.KovaSz == 4);
    TRY(KovaLStat("f", &stat));
    TRY(KovaStatFS("f", &fs));
    EXPECT(fs.KovaBSize > 0);
    int fd = -1;
    const int status = OpenDir(".", &fd);
    EXPECT((status == 0) == (fd >= 0));
    close(fd);
    return status;
}

int rename_and_delete()
{
    put("old", "x");
    if (const int status = KovaRename("old", "new")) {
        EXPECT(get("old") == "x");
        return status;
    }
    EXPECT(get("new") == "x" && get("old") == "(none)");
    const int status = KovaDelete("new");
    EXPECT(get("new") == (status == 0 ? "(none)" : "x"));
    return status;
}

// ---- the keyword file ----

int config_open(KovaCfgType_t type, const std::string &text, const char *value)
{
    put("cfg", text);
    ko::Config cfg;
    if (const int status =
            KovaCfgOpen("cfg", KOVA_OPEN_READ, type, cfg.out(), message, sizeof message)) {
        EXPECT(cfg.get() == nullptr);
        return status;
    }
    CfgEnt_t *entry = nullptr;
    for (CfgEnt_t *next = nullptr; KovaCfgNext(cfg.get(), &next) == 0;) {
        entry = next;
    }
    EXPECT(strcmp(entry->KovaCfgVals[type == CFGTYPE_VALUES ? 1 : 0], value) == 0);
    EXPECT(get("cfg") == text);
    return cfg.close();
}

char value[] = "1";
char *values[] = {value, nullptr};
const std::string before = "one 1\n";
const std::string after = "one 1\ntwo 1\n";

int config_save(bool closing)
{
    put("cfg", before);
    ko::Config cfg;
    TRY(KovaCfgOpen("cfg", KOVA_OPEN_RDWR, CFGTYPE_VALUES, cfg.out(), message, sizeof message));
    TRY(KovaCfgInsert(cfg.get(), -1, "two", values, nullptr, message, sizeof message));
    if (closing) {
        return replaced("cfg", before, after, cfg.close(true));
    }
    const int status =
        replaced("cfg", before, after, KovaCfgSave(cfg.get(), message, sizeof message));
    const Calm calm; // a second save makes up for it
    EXPECT(KovaCfgSave(cfg.get(), message, sizeof message) == 0);
    return replaced("cfg", after, after, 0) + status;
}

int config_create()
{
    ko::Config cfg;
    TRY(KovaCfgOpen("new", KOVA_OPEN_RDWR | KOVA_OPEN_CREATE | KOVA_OPEN_EXCL, CFGTYPE_ASSIGN,
                    cfg.out(), message, sizeof message));
    TRY(KovaCfgInsert(cfg.get(), -1, "two", values, "why", message, sizeof message));
    return replaced("new", "", "# why\ntwo=1\n", cfg.close(true));
}

int config_copy()
{
    put("cfg", "one 1 2 # x\n# c\ntwo 2\n");
    ko::Config cfg;
    ko::Config copy;
    TRY(KovaCfgOpen("cfg", KOVA_OPEN_READ, CFGTYPE_VALUES, cfg.out(), message, sizeof message));
    if (const int status = KovaCfgCopy(copy.out(), cfg.get(), message, sizeof message)) {
        EXPECT(copy.get() == nullptr);
        return status;
    }
    EXPECT(KovaCfgCmp(cfg.get(), copy.get()) == 0);
    return 0;
}

int config_edit()
{
    put("cfg", "one 1\ntwo 2\n");
    ko::Config cfg;
    TRY(KovaCfgOpen("cfg", KOVA_OPEN_READ, CFGTYPE_WORDS, cfg.out(), message, sizeof message));
    CfgEnt_t *entry = nullptr;
    TRY(KovaCfgEnum(cfg.get(), 1, &entry));
    const int status = KovaCfgEntValInsert(entry, 0, "0");
    EXPECT(strcmp(entry->KovaCfgVals[0], status == 0 ? "0" : "2") == 0);
    EXPECT(strcmp(entry->KovaCfgName, "two") == 0 &&
           (entry->KovaCfgVals[1] != nullptr) == (status == 0));
    TRY(status);
    const int inserted = KovaCfgInsert(cfg.get(), 0, "zero", values, "c", message, sizeof message);
    int entries = 0;
    for (CfgEnt_t *each = nullptr; KovaCfgNext(cfg.get(), &each) == 0;) {
        entries++;
    }
    EXPECT(entries == (inserted == 0 ? 3 : 2));
    TRY(inserted);
    return KovaCfgRemove(cfg.get(), 0);
}

// ---- the files built on it ----

int fsm_read()
{
    put("fsmlist", "alpha . 5\nbeta\n");
    ko::FsmList list;
    if (const int status = FsmListOpen(list.out(), KOVA_OPEN_READ)) {
        EXPECT(list.get() == nullptr);
        return status;
    }
    FsmListEnt_t entry;
    TRY(FsmListFind(list.get(), "beta", &entry));
    EXPECT(entry.Index == 1);
    return list.close();
}

// A name that FsmListAddName says it added may be missing when the save failed, but nothing else.
int add_name(const std::string &old_text, const std::string &new_text)
{
    const int status = FsmListAddName("gamma");
    replaced("fsmlist", old_text, new_text, plan.nth != 0 ? 1 : 0);
    return status;
}

int fsm_add()
{
    put("fsmlist", "alpha\nbeta\n");
    return add_name("alpha\nbeta\n", "alpha\nbeta\ngamma\n");
}

int fsm_add_first()
{
    const int status = FsmListAddName("gamma");
    const std::string text = get("fsmlist");
    EXPECT(text == "gamma\n" || text.empty() || text == "(none)");
    return status;
}

int fsm_modify()
{
    put("fsmlist", "alpha\nbeta\n");
    ko::FsmList list;
    TRY(FsmListOpen(list.out(), KOVA_OPEN_RDWR));
    FsmListEnt_t entry = {
        .Index = 0, .FsmName = "gamma", .Priority = 0, .Compatibility = 0, .Comment = ""};
    const int status = FsmListModify(list.get(), 1, &entry);
    FsmListEnt_t now;
    EXPECT(FsmListRead(list.get(), 1, &now) == 0);
    EXPECT(strcmp(now.FsmName, status == 0 ? "gamma" : "beta") == 0);
    TRY(status);
    TRY(FsmListInsert(list.get(), 0, &entry));
    TRY(FsmListDelete(list.get(), 0));
    return replaced("fsmlist", "alpha\nbeta\n", "alpha\ngamma\n", FsmListSave(list.get()));
}

int fsm_refresh()
{
    put("fsmlist", "alpha\n");
    ko::FsmList list;
    TRY(FsmListOpen(list.out(), KOVA_OPEN_READ));
    put("fsmlist", "beta\n");
    list->MtimeOrig--;
    FsmListEnt_t entry;
    const int status = FsmListRefresh(list.get());
    const Calm calm; // the next refresh loads it
    EXPECT(FsmListRefresh(list.get()) == 0 && FsmListFind(list.get(), "beta", &entry) == 0);
    return status;
}

int variables()
{
    put("vars", "BASE=/opt\nBIN=${BASE}/bin\n");
    void *vars = gvar_open("vars", 0);
    if (vars == nullptr) {
        return -1;
    }
    char *bin = gvar_get(vars, "BIN");
    EXPECT(bin == nullptr || strcmp(bin, "/opt/bin") == 0 || strcmp(bin, "/bin") == 0);
    char *base = gvar_get(vars, "BASE");
    put("vars", "BASE=/usr/local\n");
    const timespec times[2] = {{1, 0}, {1, 0}};
    utimensat(AT_FDCWD, "vars", times, 0);
    gvar_refresh(vars);
    EXPECT(base == nullptr || strcmp(base, "/opt") == 0);
    gvar_release(vars, base);
    {
        const Calm calm;
        const timespec later[2] = {{2, 0}, {2, 0}};
        utimensat(AT_FDCWD, "vars", later, 0);
        gvar_refresh(vars);
        char *now = gvar_get(vars, "BASE");
        EXPECT(now != nullptr && strcmp(now, "/usr/local") == 0);
    }
    char text[64] = "a${BASE}b";
    gvar_expand(static_cast<gvar_instance *>(vars), text);
    const std::string expanded = text;
    EXPECT(expanded == "a/usr/localb" || (expanded == "a${BASE}b" && plan.nth != 0));
    gvar_release(vars, bin);
    gvar_close(vars);
    return 0;
}

int mount_file()
{
    put("mnt", "mnt_retry=0\nmax_dma=0x10\n");
    ko::MountArgs args;
    MntArgsMask_t used = 1;
    const int status = VoMntArgsLoadFile("mnt", sizeof message, message, &used, args.out());
    EXPECT((status == 0) == (args.get() != nullptr) && (status == 0 || used == 0));
    EXPECT(get("mnt") == "mnt_retry=0\nmax_dma=0x10\n");
    return status;
}

int mount_records()
{
    ko::MountArgs args(VoMntArgsAlloc());
    if (args.get() == nullptr) {
        return -1;
    }
    ko::MountArgs copy(VoMntArgsClone(args.get()));
    if (copy.get() == nullptr) {
        return -1;
    }
    MntArgsMask_t difference = 0;
    EXPECT(VoMntArgsCmp(args.get(), copy.get(), &difference) == 0);
    return 0;
}

int mount_store()
{
    mntargs_t *args = nullptr;
    const int status = VoMntArgsLoad("fs", &args);
    EXPECT(args == nullptr && (status == 38 || status == 12));
    return status == 38 ? 0 : status;
}

int port_ranges()
{
    put("fsports", "minport 2000\nmaxport 3000\n");
    uint16_t low = 1;
    uint16_t high = 1;
    uint16_t alternative = 1;
    genportrange(&low, &high, &alternative, 1);
    EXPECT(low <= high && alternative == 0);
    EXPECT(plan.nth != 0 || (low == 2000 && high == 3000));
    return 0;
}

int branding()
{
    mkdir("oem", 0755);
    put("oem/oem.inf", "BrandName Example\nBrandPrompt ex\n");
    configure_branding();
    EXPECT(strcmp(BrandName, "Example") == 0 ||
           (plan.nth != 0 && strcmp(BrandName, "Kovaline") == 0));
    const Calm calm;
    configure_branding();
    return 0;
}

int checked_build()
{
    WriteLog = [](int type, char *text) {
        EXPECT(type != 3 || strncmp(text, "ERROR (f:1) soft", 16) == 0);
    };
    PanicCheckedBuild("f", 1, "soft");
    return 0;
}

// ---- logs and progress ----

// Every line is whole, in order and there once; gives the number of the last, 0 for none. What the
// system cuts short is lost: a line is one write.
int last_line(const std::string &text)
{
    int last = 0;
    std::istringstream lines(text);
    for (std::string line; plan.divisor == 0 && std::getline(lines, line);) {
        const size_t at = line.find("] line ");
        EXPECT(line == "Rotating Log File" || at < line.size());
        EXPECT(at > line.size() || atoi(line.c_str() + at + 7) > last);
        last = at > line.size() ? last : atoi(line.c_str() + at + 7);
    }
    EXPECT(plan.divisor != 0 || text.empty() || text.back() == '\n');
    return last;
}

bool undisturbed()
{
    return plan.nth == 0 && plan.divisor == 0;
}

int log_lines()
{
    put("log", "");
    if (SetupLogFile("log", 0, 0) == 0) {
        CloseLog();
        return __vorn_log_file_fd <= 2 ? -1 : 0;
    }
    char format[] = "line %d\n";
    for (int i = 1; i <= 3; i++) {
        LogToFile(1, format, i);
    }
    CloseLog();
    const int last = last_line(get("log"));
    EXPECT(last == 3 || !undisturbed());
    return 0;
}

// The older files `kept` are shifted up and none of them is lost while there is room.
int rotate(int count)
{
    put("log_1", "1 [] line 2\n");
    put("log_2", "1 [] line 1\n");
    const int status = SetupLogFile("log", 300, count) != 0 ? 0 : -1;
    char format[] = "line %d\n";
    for (int i = 3; i <= (count > 3 ? 10 : 30); i++) {
        LogToFile(1, format, i);
    }
    CloseLog();
    std::string all;
    for (int i = 9; i >= 0; i--) {
        const std::string name = i == 0 ? "log" : "log_" + std::to_string(i);
        all += std::filesystem::exists(name) ? get(name) : "";
    }
    EXPECT(count <= 3 || all.starts_with("1 [] line 1\n1 [] line 2\n"));
    const int last = last_line(all);
    EXPECT(last == (count > 3 ? 10 : 30) || !undisturbed());
    return status;
}

int log_nested()
{
    int status = SetupLogFile("a", 0, 0) != 0 ? 0 : -1;
    const int first = status == 0 ? __vorn_log_file_fd : -1;
    status = SetupLogFile("b", 0, 0) != 0 ? status : -1;
    char format[] = "line %d\n";
    LogToFile(1, format, 1);
    CloseLog();
    CloseLog();
    CloseLog();
    close(first); // a further setup does not
    int set = 1;
    GetLogFileInfo(&set, nullptr, nullptr, nullptr, nullptr);
    EXPECT(set == 0);
    return status;
}

vornlog_legend_t legend[] = {{0, "one", "first"}, {1, "two", "second"}, {0, nullptr, nullptr}};

int facilities_used()
{
    TRY(init_facility(DBG_FAC_CACHED, "cached", legend));
    char options[] = "two";
    TRY(ParseAllDebugParams(options));
    char *text = nullptr;
    const int status = DebugFlagsHexString(&text, DBG_FAC_CACHED);
    EXPECT(status == 0 ? strcmp(text, "0x02") == 0 : text == nullptr);
    free(text);
    facility_at_exit(DBG_FAC_CACHED);
    EXPECT(facility_valid(DBG_FAC_CACHED) == 0);
    return status;
}

int facility_texts()
{
    TRY(init_facility(DBG_FAC_CACHED, "cached", legend));
    char **one = _GetDebugStrings(legend);
    char **all = GetAllDebugStrings();
    const int status = one != nullptr && all != nullptr ? 0 : 12;
    EXPECT(one == nullptr || strcmp(one[2], "two") == 0);
    free(one);
    free(all);
    facility_at_exit(DBG_FAC_CACHED);
    return status;
}

int progress(bool success)
{
    util_track_ctx_t *track = UtilTrackInit("progress");
    if (track == nullptr) {
        return -1;
    }
    UtilTrackPhase(track, "Copy");
    UtilTrackProgress(track, 12);
    UtilTrackHeartBeatPulse(track);
    success ? UtilTrackSuccess(track) : UtilTrackFailure(track, "why");
    EXPECT(plan.nth != 0 ||
           get("progress").ends_with(success ? "Status: Success\n" : "Status: why\n"));
    return 0;
}

constexpr Scenario scenarios[] = {
    {"file_read_write", file_read_write, 20, kFiles},
    {"file_map", file_map, 20, kFiles},
    {"file_map_by_name", file_map_by_name, -1, kFiles},
    {"directories", directories, 20, kFiles},
    {"file_copy", file_copy, 0, kFiles},
    {"listing", listing, 20, kFiles},
    {"statuses", statuses, 0, kFiles},
    {"rename_and_delete", rename_and_delete, 0, kFiles},
    {"config_values", [] { return config_open(CFGTYPE_VALUES, "# c\none=1=2\ntwo=a b\n", "a b"); },
     20, kFiles},
    {"config_words", [] { return config_open(CFGTYPE_WORDS, "one 1 # c\ntwo 2\n", "2"); }, 20,
     kFiles},
    {"config_assign", [] { return config_open(CFGTYPE_ASSIGN, "one=1\n# c\ntwo=2\n", "2"); }, 20,
     kFiles},
    {"config_save", [] { return config_save(false); }, 20, kFiles},
    {"config_close_with_save", [] { return config_save(true); }, 20, kFiles},
    {"config_create", config_create, 20, kFiles},
    {"config_copy", config_copy, 20, kFiles},
    {"config_edit", config_edit, 20, kFiles},
    {"fsm_read", fsm_read, 20, kFiles},
    {"fsm_add", fsm_add, -1, kFiles},
    {"fsm_add_first", fsm_add_first, -1, kFiles},
    {"fsm_modify", fsm_modify, 20, kFiles},
    {"fsm_refresh", fsm_refresh, 20, kFiles},
    {"variables", variables, -1, kFiles},
    {"mount_file", mount_file, 20, kFiles},
    {"mount_records", mount_records, -1, kFiles},
    {"mount_store", mount_store, 12, 0},
    {"port_ranges", port_ranges, 0, kFiles},
    {"branding", branding, 0, kFiles},
    {"checked_build", checked_build, 0, kFiles},
    {"log_lines", log_lines, -1, kFiles},
    {"log_rotation", [] { return rotate(3); }, -1, kFiles},
    {"log_rotation_of_many", [] { return rotate(100); }, -1, kFiles},
    {"log_nested", log_nested, -1, kFiles},
    {"facilities", facilities_used, 12, 0},
    {"facility_texts", facility_texts, 12, 0},
    {"progress_success", [] { return progress(true); }, -1, kFiles},
    {"progress_failure", [] { return progress(false); }, -1, kFiles},
};

} // namespace

const std::span<const Scenario> file_scenarios = scenarios;
