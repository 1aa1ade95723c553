// mount_helper.cpp - checks the mount options of file systems, as a mount helper does before it
// mounts anything.
//
// Shows how a host program uses the library: the start-up calls in their order, the log file with
// rotation and debug flags, the hooks for events and clock jumps; mount-argument files, an option
// string parsed against a table that is made from the table of tunables; validation and comparison
// of records.
//
//     VORNROOT=examples/installation mount_helper examples/installation/config/data1.opts
#include "host.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>
#include <strings.h>
#include <vector>

namespace
{

// What the program ends with; the worst of all files counts.
enum Result { all_valid = 0, problems = 1, unreadable = 2 };

constexpr int log_files_kept = 3;
constexpr size_t longest_path = 255; // of a configuration file
constexpr size_t message_size = 4096;

// Debug messages that -d switches on.
enum DebugFlag { debug_load, debug_check };
vornlog_legend_t debug_legend[] = {{debug_load, "load", "what each file sets"},
                                   {debug_check, "check", "what each check found"},
                                   {0, nullptr, nullptr}};

host::Host program; // the log and its flags

// Returns whether the debug flags are known ones. What else fails is told, and the checks go on.
bool start_up(int log_size, const std::string &debug_flags)
{
    static char name[] = "mount_helper";
    program.start(name, DBG_FAC_KOADMIN, debug_legend, "mount_helper.log", log_size, log_files_kept,
                  debug_flags);
    if (!program.clock_runs) {
        fprintf(stderr, "mount_helper: the clock thread cannot be started\n");
    }
    if (!program.log_opened) {
        fprintf(stderr, "mount_helper: %s cannot be opened; nothing is logged\n",
                program.log_path.c_str());
    }
    VoSnprintf(PanicNomenclature, sizeof PanicNomenclature, "MOUNT PANIC");
    configure_branding();
    return program.flags_known;
}

MntArgsMask_t bit_of(const MntArgsInf_t &row)
{
    return MntArgsMask_t{1} << row.mai_Index;
}

char *field_of(const ko::MountArgs &record, const MntArgsInf_t &row)
{
    return reinterpret_cast<char *>(record.get()) + row.mai_MntArgsOff;
}

// The kinds of numbers come in pairs of 1, 2, 4 and 8 bytes.
size_t width_of(const MntArgsInf_t &row)
{
    return row.mai_MntArgsType == MNTARGS_TYPE_CHARP
               ? sizeof(mntargs_t::ma_fsname)
               : size_t{1} << (row.mai_MntArgsType - MNTARGS_TYPE_CHAR) / 2;
}

std::string number_text(uint64_t number)
{
    char text[32];
    IntToStr64(static_cast<int64_t>(number), text, sizeof text);
    return text;
}

// A text from a file as it may be shown: a terminal shall not obey it.
std::string printable(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; }, '?');
    return text;
}

std::string value_text(const ko::MountArgs &record, const MntArgsInf_t &row)
{
    if (row.mai_MntArgsType == MNTARGS_TYPE_CHARP) {
        const char *text = field_of(record, row);
        return printable({text, strnlen(text, width_of(row))});
    }
    uint64_t number = 0;
    memcpy(&number, field_of(record, row), width_of(row));
    return number_text(number);
}

std::string range_text(const MntArgsInf_t &row)
{
    if (row.mai_ValMax == UINT64_MAX) {
        return "any";
    }
    return number_text(row.mai_ValMin) + "-" + number_text(row.mai_ValMax) +
           (row.mai_MntArgsType == MNTARGS_TYPE_CHARP ? " chars" : "");
}

// A tunable and what -o gives it.
struct Setting {
    const MntArgsInf_t *row;
    std::string text;
    int64_t number;
};

bool fits(const MntArgsInf_t &row, const std::string &text, int64_t *number)
{
    *number = 0;
    if (row.mai_MntArgsType == MNTARGS_TYPE_CHARP) {
        return text.size() < width_of(row);
    }
    return StrToInt64(text.c_str(), number) == 1 &&
           (width_of(row) == 8 || *number < int64_t{1} << (8 * width_of(row)));
}

// Takes apart the string of -o. Both keys of a row are known, each as a text, since the option
// parser has fewer units than the numbers of option files.
bool parse_settings(const char *text, std::vector<Setting> *settings)
{
    std::vector<std::string> names;
    std::vector<Option> syntax;
    for (const MntArgsInf_t &row : ko::tunables()) {
        for (const char *key : {row.mai_Name, row.mai_RegValName}) {
            if (key != nullptr) {
                names.push_back(std::string(key) + "=%s");
                syntax.push_back({nullptr, static_cast<uint32_t>(row.mai_Index), 0, 0, nullptr, 0,
                                  KOOPT_INVALID, 0});
            }
        }
    }
    for (size_t i = 0; i < names.size(); ++i) {
        syntax[i].m_name = names[i].c_str();
    }
    syntax.push_back({});

    std::string copy = text;
    char *rest = copy.data();
    for (;;) {
        uint64_t unused = 0;
        char value[512] = "";
        char message[256] = "";
        const uint32_t code = parse_option(&rest, syntax.data(), &unused, value, sizeof value,
                                           message, sizeof message);
        if (code == OPTION_END) {
            return true;
        }
        if (code == OPTION_ERROR) {
            message[strcspn(message, "\n")] = '\0';
            fprintf(stderr, "mount_helper: -o: %s\n", message);
            return false;
        }
        Setting setting = {&g_MntArgsInf[code], value, 0};
        if (!fits(*setting.row, setting.text, &setting.number)) {
            fprintf(stderr, "mount_helper: -o: the value '%s' does not fit %s\n", value,
                    setting.row->mai_Name);
            return false;
        }
        settings->push_back(setting);
    }
}

void apply(const std::vector<Setting> &settings, const ko::MountArgs &record)
{
    for (const Setting &setting : settings) {
        char *field = field_of(record, *setting.row);
        if (setting.row->mai_MntArgsType == MNTARGS_TYPE_CHARP) {
            VoSnprintf(field, width_of(*setting.row), "%s", setting.text.c_str());
        } else {
            memcpy(field, &setting.number, width_of(*setting.row)); // the low bytes come first
        }
    }
    VoMntArgsMntOptsAutoSet(record.get());
}

// A file of which the last line has no end may have been cut off; that is worth a word.
bool ends_in_mid_line(const std::string &path)
{
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return false;
    }
    const bool cut = fseek(file, -1, SEEK_END) == 0 && fgetc(file) != '\n';
    fclose(file);
    return cut;
}

// Prints a finding without its empty lines, indented.
void print_indented(const std::string &text)
{
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = std::min(text.find('\n', start), text.size());
        if (end > start) {
            printf("    %.*s\n", static_cast<int>(end - start), text.c_str() + start);
        }
        start = end + 1;
    }
}

// Prints what the row of the first quoted key of a message is about, if it has one.
void print_help_of_quoted_key(const std::string &message)
{
    const size_t start = message.find('\'') + 1;
    const std::string key = message.substr(start, message.find('\'', start) - start);
    for (const MntArgsInf_t &row : ko::tunables()) {
        if (strcasecmp(row.mai_Name, key.c_str()) == 0 ||
            (row.mai_RegValName != nullptr && strcasecmp(row.mai_RegValName, key.c_str()) == 0)) {
            print_indented(std::string(row.mai_Title) + "\n" + row.mai_Help +
                           "\nVALID RANGE: " + range_text(row));
            return;
        }
    }
}

// Loads a file and applies the settings. The loader's own codes, for a file that could be read but
// not understood, are told from the errors of the system.
Result load(const std::string &path, const std::vector<Setting> &settings, ko::MountArgs *record)
{
    char message[message_size] = "";
    MntArgsMask_t used = 0;
    const VoError_t status = record->load(path.c_str(), message, used);
    if (status == 0) {
        program.debug(debug_load, "%s sets the rows 0x%llx\n", path.c_str(),
                      static_cast<unsigned long long>(used));
        apply(settings, *record);
        return all_valid;
    }
    message[strcspn(message, "\n")] = '\0';
    const std::string reason = printable(message);
    Error_Output("%s: %s\n", path.c_str(), reason.c_str());
    if ((status == 11 || status == 22) && path.size() <= longest_path) {
        printf("%s\n  not accepted: %s\n", path.c_str(), reason.c_str());
        print_help_of_quoted_key(reason);
        printf("\n");
        return problems;
    }
    fflush(stdout);
    fprintf(stderr, "mount_helper: %s: %s\n", path.c_str(), reason.c_str());
    RasEvent("SL_EVT_SYS_RES_FAIL", "mount options %s cannot be read", path.c_str());
    return unreadable;
}

void print_problem(const std::string &path, const ko::MountArgs &record, const MntArgsInf_t &row)
{
    char text[message_size] = "";
    MntArgsMask_t mask = bit_of(row);
    VoMntArgsValidate(record.get(), &mask, text, sizeof text);
    // A finding about the mount point is the one that does not name its row.
    if (strncmp(text, row.mai_Title, strlen(row.mai_Title)) != 0) {
        print_indented(std::string(row.mai_Title) + "\n" + row.mai_Help + "\nERROR: " + text +
                       "\nHELP KEYWORD: " + row.mai_Name);
    } else {
        print_indented(text);
    }
    printf("\n");
    Error_Output("%s: %s=%s is not valid\n", path.c_str(), row.mai_Name,
                 value_text(record, row).c_str());
}

// Validates a record; `failed` receives the rows that have problems.
Result check(const std::string &path, const ko::MountArgs &record, MntArgsMask_t *failed)
{
    char tovan[message_size] = "";
    *failed = ~MntArgsMask_t{0};
    unsigned int count = VoMntArgsValidate(record.get(), failed, nullptr, 0);
    if (VoMntArgsValidateTovan(record.get(), sizeof tovan, tovan) != 0) {
        ++count;
        Error_Output("%s: %s\n", path.c_str(), tovan);
    }
    program.debug(debug_check, "%s: %u problems\n", path.c_str(), count);
    if (count == 0) {
        Info_Output("%s: valid\n", path.c_str());
        return all_valid;
    }
    printf("  %u problem%s in %s:\n\n", count, count == 1 ? "" : "s", path.c_str());
    for (const MntArgsInf_t &row : ko::tunables()) {
        if ((*failed & bit_of(row)) != 0) {
            print_problem(path, record, row);
        }
    }
    if (tovan[0] != '\0') {
        print_indented(std::string("TOVAN\nERROR: ") + tovan);
        printf("\n");
    }
    return problems;
}

constexpr int keyword_and_value = 32; // columns for the keyword on the left, the value on the right

// One line of the table. A value that does not fit beside its keyword gets a line of its own.
void print_row(const MntArgsInf_t &row, const std::string &value, const char *state)
{
    const int room = keyword_and_value - static_cast<int>(strlen(row.mai_Name));
    const bool fits = static_cast<int>(value.size()) < room;
    printf("%-26s %s%*s %-7s %s\n", row.mai_Title, row.mai_Name, room, fits ? value.c_str() : "",
           state, range_text(row).c_str());
    if (!fits) {
        printf("  = %s\n", value.c_str());
    }
}

// Prints every tunable, or with `only_changed` those that are not at their defaults.
void print_table(const ko::MountArgs &record, MntArgsMask_t failed, bool only_changed)
{
    const auto defaults = ko::MountArgs::allocate();
    MntArgsMask_t changed = 0;
    if (!defaults) {
        return;
    }
    VoMntArgsCmp(defaults.get(), record.get(), &changed);
    printf("%-26s %-21s %10s %-7s %s\n", "Title", "Keyword", "Value", "State", "Range");
    printf("-------------------------- --------------------- ---------- ------- ------------\n");
    for (const MntArgsInf_t &row : ko::tunables()) {
        const bool is_changed = (changed & bit_of(row)) != 0;
        const bool is_invalid = (failed & bit_of(row)) != 0;
        if (is_changed || is_invalid || !only_changed) {
            print_row(row, value_text(record, row),
                      is_invalid   ? "INVALID"
                      : is_changed ? "changed"
                                   : "default");
        }
    }
    printf("\n");
}

Result report_file(const std::string &path, const std::vector<Setting> &settings, bool only_changed)
{
    ko::MountArgs record;
    const Result loaded = load(path, settings, &record);
    if (loaded != all_valid) {
        return loaded;
    }
    printf("%s\n", path.c_str());
    if (ends_in_mid_line(path)) {
        printf("  note: the last line has no end; the file may have been cut off\n");
        Warn_Output("%s: the last line has no end\n", path.c_str());
    }
    MntArgsMask_t failed = ~MntArgsMask_t{0};
    VoMntArgsValidate(record.get(), &failed, nullptr, 0);
    print_table(record, failed, only_changed);
    return check(path, record, &failed);
}

// Prints the tunables in which two records differ. Long values get lines of their own.
void print_difference(const std::string &first_path, const ko::MountArgs &first,
                      const std::string &second_path, const ko::MountArgs &second,
                      MntArgsMask_t differing)
{
    printf("< %s\n> %s\n\n", first_path.c_str(), second_path.c_str());
    printf("%-26s %-21s %15s %15s\n", "Title", "Keyword", "<", ">");
    printf("-------------------------- --------------------- --------------- ---------------\n");
    for (const MntArgsInf_t &row : ko::tunables()) {
        if ((differing & bit_of(row)) == 0) {
            continue;
        }
        const std::string left = value_text(first, row);
        const std::string right = value_text(second, row);
        if (std::max(left.size(), right.size()) <= 15) {
            printf("%-26s %-21s %15s %15s\n", row.mai_Title, row.mai_Name, left.c_str(),
                   right.c_str());
        } else {
            printf("%-26s %s\n  < %s\n  > %s\n", row.mai_Title, row.mai_Name, left.c_str(),
                   right.c_str());
        }
    }
    printf("\n");
}

Result report_difference(const std::string &first_path, const std::string &second_path,
                         const std::vector<Setting> &settings)
{
    ko::MountArgs first;
    ko::MountArgs second;
    Result result =
        std::max(load(first_path, settings, &first), load(second_path, settings, &second));
    if (!first || !second) {
        return result;
    }
    MntArgsMask_t differing = 0;
    if (VoMntArgsCmp(first.get(), second.get(), &differing) == 0) {
        printf("%s and %s are alike\n\n", first_path.c_str(), second_path.c_str());
    } else {
        print_difference(first_path, first, second_path, second, differing);
    }
    MntArgsMask_t failed = 0;
    result = std::max(result, check(first_path, first, &failed));
    return std::max(result, check(second_path, second, &failed));
}

void print_help()
{
    configure_branding();
    printf("%s mount helper: checks mount options before anything is mounted\n\n"
           "usage: mount_helper [options] FILE...\n"
           "       mount_helper [options] --diff FILE FILE\n\n"
           "Loads each option file, applies the settings of -o, checks the result against\n"
           "the table of tunables, and prints every tunable and every problem.\n\n"
           "  -o KEY=VALUE,...   set tunables after each file is loaded; numbers may have\n"
           "                     the units K, M, G, T and P\n"
           "  -c, --changed      print only tunables that are not at their defaults\n"
           "      --diff         compare two files; a difference is no problem\n"
           "  -d FLAG,...        write debug messages to the log: load, check\n"
           "      --log-size N   rotate the log when it grows beyond N bytes (1M)\n"
           "      --help         print this text\n\n"
           "exit status: 0 all valid, 1 problems, 2 a file could not be read\n"
           "environment: VORNROOT, VORNLOGS say where the installation and its log are\n",
           BrandName);
}

int usage_error(const char *text)
{
    fprintf(stderr, "mount_helper: %s\nTry 'mount_helper --help'.\n", text);
    return problems;
}

struct Arguments {
    std::vector<Setting> settings;
    std::string debug_flags;
    int log_size = 1 << 20;
    bool only_changed = false;
    bool diff = false;
};

} // namespace

int main(int argc, char **argv)
{
    const option long_options[] = {{"changed", no_argument, nullptr, 'c'},
                                   {"diff", no_argument, nullptr, 'D'},
                                   {"log-size", required_argument, nullptr, 'L'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    Arguments arguments;
    int64_t log_size = 0;
    for (int c; (c = getopt_long(argc, argv, "o:cd:h", long_options, nullptr)) != -1;) {
        switch (c) {
        case 'o':
            if (!parse_settings(optarg, &arguments.settings)) {
                return problems;
            }
            break;
        case 'c':
            arguments.only_changed = true;
            break;
        case 'd':
            arguments.debug_flags = optarg;
            break;
        case 'D':
            arguments.diff = true;
            break;
        case 'L':
            if (StrToInt64(optarg, &log_size) != 1 || log_size < 0 || log_size > INT32_MAX) {
                return usage_error("--log-size wants a number of bytes");
            }
            arguments.log_size = static_cast<int>(log_size);
            break;
        case 'h':
            print_help();
            return all_valid;
        default:
            return usage_error("unknown option");
        }
    }
    const std::vector<std::string> files(argv + optind, argv + argc);
    if (files.empty() || (arguments.diff && files.size() != 2)) {
        return usage_error(arguments.diff ? "--diff wants two files" : "no file given");
    }
    if (!start_up(arguments.log_size, arguments.debug_flags)) {
        return usage_error("unknown debug flag");
    }
    const monotime_t begun = GetMonoStamp();
    Result result = all_valid;
    if (arguments.diff) {
        result = report_difference(files[0], files[1], arguments.settings);
    } else {
        for (const std::string &file : files) {
            result =
                std::max(result, report_file(file, arguments.settings, arguments.only_changed));
        }
    }
    Info_Output("%zu files done with result %d after %.1f seconds\n", files.size(), result,
                static_cast<double>(GetMonoElapsed(begun)) / 1e6);
    return result;
}
