// cluster_config.cpp - shows, checks and edits the configuration files of an installation: the list
// of file systems, the shared variables and the port ranges.
//
// Shows how a host program uses the FSM list, the global variables, the port ranges and, where it
// wants more than those tell, the keyword file below them: edits that keep what other tools wrote,
// reloads that see other processes' changes, and a hook that receives the library's reports.
//
//     VORNROOT=examples/installation cluster_config list
#include <koutil/koutil.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

enum Result { fine = 0, problems = 1, failed = 2 };

constexpr char variables_file[] = "vars";
constexpr char usage[] =
    "usage: cluster_config COMMAND\n"
    "\n"
    "  list                           the file systems of this host\n"
    "  add NAME [PRIORITY [COMMENT]]  add a file system to the end of the list, or change it\n"
    "  move NAME PLACE                move a file system to a place of the list, from 1\n"
    "  remove NAME                    remove a file system from the list\n"
    "  vars                           the shared variables, references replaced\n"
    "  get NAME                       one variable; the environment takes precedence\n"
    "  ports                          the port ranges\n"
    "  check                          look for mistakes in all three files\n"
    "  watch [SECONDS]                print what changes on disk, until interrupted or for a time\n"
    "\n"
    "The files are fsmlist, vars and fsports in $VORNCONF, or in $VORNROOT/config. The exit status "
    "is\n"
    "0, 1 when something is wrong or not there, or 2 when a file cannot be read or written.\n";

constexpr int type_warning = 2; // of WriteLog
int warnings = 0;
bool reports_wanted = false;

// The hook: reports of the library go to standard error while they are wanted.
void report(int type, char *text)
{
    warnings += type == type_warning ? 1 : 0;
    if (reports_wanted) {
        const bool has_end = *text != '\0' && text[strlen(text) - 1] == '\n';
        fprintf(stderr, "  %s%s", text, has_end ? "" : "\n");
    }
}

// Small codes of the library share the numbering of errno, so its texts do for both.
Result complain(const std::string &what, VoError_t status)
{
    fflush(stdout);
    fprintf(stderr, "cluster_config: %s: %s (%d)\n", what.c_str(), strerror(status), status);
    return failed;
}

std::string config_path(const char *name)
{
    return std::string(GetVornConfigDir()) + "/" + name;
}

bool exists(const char *name)
{
    KovaStat_t info;
    return KovaStat(config_path(name).c_str(), &info) == 0;
}

// What a file says, in its order: a name and the text of what it stands for.
using Facts = std::vector<std::pair<std::string, std::string>>;

// The list, opened for its life; the status says whether.
class List
{
  public:
    explicit List(KovaFlgs_t flags)
        : status_(list_.open(flags))
    {
    }

    VoError_t status() const { return status_; }
    FsmListHndl_t *get() const { return list_.get(); }

    // All entries; lines with nothing but a comment have no name.
    std::vector<FsmListEnt_t> entries() const
    {
        std::vector<FsmListEnt_t> all;
        FsmListEnt_t ent;
        for (int i = 0; FsmListRead(get(), i, &ent) == 0; ++i) {
            all.push_back(ent);
        }
        return all;
    }

  private:
    ko::FsmList list_;
    VoError_t status_;
};

constexpr KovaFlgs_t to_edit = KOVA_OPEN_READ | KOVA_OPEN_RDWR | KOVA_OPEN_CREATE;

// A comment that was saved with an entry stands on the line above it.
std::string comment_of(const std::vector<FsmListEnt_t> &all, size_t i)
{
    const bool above = all[i].Comment[0] == '\0' && i > 0 && all[i - 1].FsmName[0] == '\0';
    const char *comment = all[above ? i - 1 : i].Comment;
    return comment + strspn(comment, "# ");
}

Facts list_facts(const List &list)
{
    Facts facts;
    const std::vector<FsmListEnt_t> all = list.entries();
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].FsmName[0] != '\0') {
            std::string fact = "no priority";
            if (all[i].Priority != 0) {
                fact = "priority " + std::to_string(all[i].Priority);
            }
            const std::string comment = comment_of(all, i);
            if (!comment.empty()) {
                fact += ", " + comment;
            }
            facts.emplace_back(all[i].FsmName, fact);
        }
    }
    return facts;
}

Result show_list()
{
    const List list(KOVA_OPEN_READ);
    if (list.status() != 0) {
        return complain(config_path("fsmlist"), list.status());
    }
    printf("%5s  %-24s %8s  %s\n", "Place", "File system", "Priority", "Comment");
    const std::vector<FsmListEnt_t> all = list.entries();
    int place = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].FsmName[0] != '\0') {
            const std::string priority =
                all[i].Priority != 0 ? std::to_string(all[i].Priority) : "-";
            printf("%5d  %-24s %8s  %s\n", ++place, all[i].FsmName, priority.c_str(),
                   comment_of(all, i).c_str());
        }
    }
    return fine;
}

Result save(const List &list)
{
    const VoError_t status = FsmListSave(list.get());
    return status == 0 ? fine : complain(config_path("fsmlist"), status);
}

Result not_listed(const char *name)
{
    fprintf(stderr, "cluster_config: %s is not in the list\n", name);
    return problems;
}

// Adds or changes an entry. A changed one keeps its place and its comment, unless there is a new
// one.
Result add(const char *name, const char *priority, const char *comment)
{
    int64_t number = 0;
    if (priority != nullptr &&
        (StrToInt64(priority, &number) == 0 || number < 0 || number > FSMLIST_MAX_PRIORITY)) {
        fprintf(stderr, "cluster_config: the priority %s is not from 0 to %d\n", priority,
                FSMLIST_MAX_PRIORITY);
        return problems;
    }
    if (*name == '\0' || strpbrk(name, " \t=\"#\r\n") != nullptr) {
        fprintf(stderr, "cluster_config: '%s' cannot be a name in the list\n", name);
        return problems;
    }
    const List list(to_edit);
    FsmListEnt_t ent = {};
    VoError_t status = list.status();
    if (status == 0) {
        status = FsmListFind(list.get(), name, &ent);
    }
    if (status != 0 && status != 2) {
        return complain(config_path("fsmlist"), status);
    }
    VoSnprintf(ent.FsmName, sizeof ent.FsmName, "%s", name);
    ent.Priority = static_cast<int>(number);
    if (comment != nullptr) {
        VoSnprintf(ent.Comment, sizeof ent.Comment, "%s", comment);
    }
    status = status == 0 ? FsmListModify(list.get(), ent.Index, &ent)
                         : FsmListInsert(list.get(), -1, &ent);
    return status == 0 ? save(list) : complain(name, status);
}

// The entries that belong to a name: its own and, where there is one, the comment line above.
struct Span {
    int first;
    int count;
};

Span span_of(const List &list, const FsmListEnt_t &ent)
{
    FsmListEnt_t above;
    const bool has_comment = ent.Index > 0 && FsmListRead(list.get(), ent.Index - 1, &above) == 0 &&
                             above.FsmName[0] == '\0' && above.Comment[0] != '\0';
    return has_comment ? Span{ent.Index - 1, 2} : Span{ent.Index, 1};
}

// The position in front of what stands at a place, counted from 1; -1 for the end.
int position_of_place(const List &list, long place)
{
    for (const FsmListEnt_t &ent : list.entries()) {
        if (ent.FsmName[0] != '\0' && --place < 1) {
            return span_of(list, ent).first;
        }
    }
    return -1;
}

// Moves entries through the keyword file, which keeps also what the list does not know about them.
VoError_t move_span(const List &list, Span span, long place)
{
    KovaCfg_t *file = list.get()->KovaCfg;
    ko::Config moved;
    VoError_t status = KovaCfgCopy(moved.out(), file, nullptr, 0);
    for (int i = 0; i < span.count && status == 0; ++i) {
        status = KovaCfgRemove(file, span.first);
    }
    const int target = position_of_place(list, place);
    for (int i = 0; i < span.count && status == 0; ++i) {
        CfgEnt_t *ent = nullptr;
        status = KovaCfgEnum(moved.get(), span.first + i, &ent);
        if (status == 0) {
            status = KovaCfgInsert(file, target < 0 ? -1 : target + i, ent->KovaCfgName,
                                   ent->KovaCfgVals, ent->KovaCfgComment, nullptr, 0);
        }
    }
    return status;
}

// Moves an entry to a place, or removes it when there is none.
Result move(const char *name, const char *place)
{
    int64_t number = 0;
    if (place != nullptr && (StrToInt64(place, &number) == 0 || number < 1)) {
        fprintf(stderr, "cluster_config: places are counted from 1\n");
        return problems;
    }
    const List list(to_edit);
    FsmListEnt_t ent;
    if (list.status() != 0) {
        return complain(config_path("fsmlist"), list.status());
    }
    if (FsmListFind(list.get(), name, &ent) != 0) {
        return not_listed(name);
    }
    const Span span = span_of(list, ent);
    VoError_t status = 0;
    if (place != nullptr) {
        status = move_span(list, span, number);
    } else {
        for (int i = 0; i < span.count && status == 0; ++i) {
            status = FsmListDelete(list.get(), span.first);
        }
    }
    return status == 0 ? save(list) : complain(name, status);
}

Facts variable_facts(const ko::GlobalVars &vars)
{
    Facts facts;
    void *position = nullptr;
    char *name = nullptr;
    while (const char *value = gvar_next(vars.get(), &position, &name)) {
        facts.emplace_back(name, value);
    }
    return facts;
}

Result show_variables()
{
    if (!exists(variables_file)) {
        return complain(config_path(variables_file), ENOENT);
    }
    ko::GlobalVars vars;
    vars.open(variables_file, false);
    for (const auto &[name, value] : variable_facts(vars)) {
        printf("%-16s %s\n", name.c_str(), value.c_str());
    }
    return fine;
}

Result show_variable(const char *name)
{
    ko::GlobalVars vars;
    vars.open(variables_file, true);
    const ko::GlobalValue value = vars.value(name);
    if (!value) {
        fprintf(stderr, "cluster_config: %s is not defined\n", name);
        return problems;
    }
    printf("%s\n", value.get());
    return fine;
}

Facts port_facts(int verbose)
{
    uint16_t lowest = 0;
    uint16_t highest = 0;
    uint16_t mapper = 0;
    genportrange(&lowest, &highest, &mapper, verbose);
    const auto text = [](uint16_t port) { return port != 0 ? std::to_string(port) : "any"; };
    return {{"lowest port", text(lowest)},
            {"highest port", text(highest)},
            {"port mapper", mapper != 0 ? std::to_string(mapper) : "default"}};
}

Result show_ports()
{
    for (const auto &[name, value] : port_facts(0)) {
        printf("%-16s %s\n", name.c_str(), value.c_str());
    }
    return fine;
}

// Loads a keyword file; prints why it cannot be read.
ko::Config load(const char *name, KovaCfgType_t type, int *mistakes)
{
    char message[256] = "";
    ko::Config file;
    if (file.open(config_path(name).c_str(), KOVA_OPEN_READ, type, message) != 0) {
        printf("  %s: %s\n", name, message);
        ++*mistakes;
    }
    return file;
}

void check_list(int *mistakes)
{
    const ko::Config file = load("fsmlist", CFGTYPE_WORDS, mistakes);
    std::set<std::string_view> seen;
    for (const CfgEnt_t &ent : file) {
        const char *name = ent.KovaCfgName != nullptr ? ent.KovaCfgName : "";
        if (*name == '\0' && ent.KovaCfgVals[0] != nullptr) {
            printf("  fsmlist: a line begins with a blank: '%s' is no name\n", ent.KovaCfgVals[0]);
            ++*mistakes;
        }
        if (*name != '\0' && !seen.insert(name).second) {
            printf("  fsmlist: %s is listed twice\n", name);
            ++*mistakes;
        }
        for (size_t i = 0; i < ko::values(ent).size(); ++i) {
            const bool known = ko::view(ent.KovaCfgVals[i]) == "." ||
                               (ent.KovaCfgIntsValid[i] != 0 && ent.KovaCfgInts[i] >= 0 &&
                                ent.KovaCfgInts[i] <= FSMLIST_MAX_PRIORITY) ||
                               ent.KovaCfgInts[i] == -470;
            if (!known) {
                printf("  fsmlist: %s: '%s' is no priority\n", name, ent.KovaCfgVals[i]);
                ++*mistakes;
            }
        }
    }
}

// Looks for references that the library drops without a word: to variables that no earlier line
// has, and unfinished ones.
void check_variables(int *mistakes)
{
    const ko::Config file = load(variables_file, CFGTYPE_ASSIGN, mistakes);
    std::set<std::string_view> defined;
    for (const CfgEnt_t &ent : file) {
        if (ent.KovaCfgName == nullptr) {
            continue;
        }
        const std::string_view value = ko::view(ent.KovaCfgVals[0]);
        for (size_t at = value.find("${"); at != value.npos; at = value.find("${", at)) {
            const size_t end = value.find('}', at);
            const bool ends = end != value.npos;
            const std::string name(value.substr(at + 2, ends ? end - at - 2 : end));
            if (!ends || defined.count(name) == 0) {
                printf("  %s: %s refers to %s, which %s\n", variables_file, ent.KovaCfgName,
                       name.c_str(), ends ? "no line above defines" : "has no end");
                ++*mistakes;
            }
            at = ends ? end : value.size();
        }
        defined.insert(ent.KovaCfgName);
    }
}

Result check()
{
    int mistakes = 0;
    check_list(&mistakes);
    check_variables(&mistakes);
    reports_wanted = true;
    port_facts(0);
    mistakes += warnings;
    printf("%d mistake%s in %s\n", mistakes, mistakes == 1 ? "" : "s", GetVornConfigDir());
    return mistakes == 0 ? fine : problems;
}

volatile sig_atomic_t interrupted = 0;

void interrupt(int)
{
    interrupted = 1;
}

// Prints in what a file differs from what it said before.
void print_changes(const char *file, const Facts &before, const Facts &after)
{
    if (before == after) { // also where a name stands twice
        return;
    }
    const auto find = [](const Facts &facts, const std::string &name) {
        return std::find_if(facts.begin(), facts.end(),
                            [&](const auto &fact) { return fact.first == name; });
    };
    const auto print = [&](const char *sign, const auto &fact, const char *note = "") {
        printf("%s: %s %s: %s%s\n", file, sign, fact.first.c_str(), fact.second.c_str(), note);
    };
    for (const auto &fact : before) {
        if (find(after, fact.first) == after.end()) {
            print("-", fact);
        }
    }
    for (const auto &fact : after) {
        const auto old_fact = find(before, fact.first);
        if (old_fact == before.end()) {
            print("+", fact);
        } else if (old_fact->second != fact.second) {
            print("~", fact, (", was " + old_fact->second).c_str());
        }
    }
    const auto same_name = [](const auto &a, const auto &b) { return a.first == b.first; };
    if (before.size() == after.size() && before != after &&
        std::is_permutation(before.begin(), before.end(), after.begin()) &&
        !std::equal(before.begin(), before.end(), after.begin(), same_name)) {
        printf("%s: the order has changed\n", file);
    }
    fflush(stdout);
}

// The list as it is on disk now. A refresh needs to write to the file, and makes a missing one: a
// watcher opens the list again instead.
Facts current_list(std::unique_ptr<List> *list)
{
    const uint32_t mtime = _FsmListGetFileModTime(config_path("fsmlist").c_str());
    if (*list == nullptr || (*list)->status() != 0 || (*list)->get()->MtimeOrig != mtime) {
        *list = std::make_unique<List>(KOVA_OPEN_READ);
    }
    return list_facts(**list);
}

Result watch(const char *seconds)
{
    constexpr int rounds_per_second = 5;
    int64_t count = INT64_MAX;
    if (seconds != nullptr) {
        if (StrToInt64(seconds, &count) == 0 || count < 0 || count > INT32_MAX) {
            fprintf(stderr, "cluster_config: %s is no number of seconds\n", seconds);
            return problems;
        }
        count *= rounds_per_second;
    }
    signal(SIGINT, interrupt);
    signal(SIGTERM, interrupt);
    std::unique_ptr<List> list;
    ko::GlobalVars vars;
    vars.open(variables_file, false);
    Facts lists = current_list(&list);
    Facts variables = variable_facts(vars);
    Facts ports = port_facts(0);
    printf("watching %s\n", GetVornConfigDir());
    fflush(stdout);
    for (; count > 0 && interrupted == 0; --count) {
        Msleep(1000000 / rounds_per_second);
        gvar_refresh(vars.get());
        Facts new_lists = current_list(&list);
        Facts new_variables = variable_facts(vars);
        Facts new_ports = port_facts(0);
        print_changes("fsmlist", lists, new_lists);
        print_changes(variables_file, variables, new_variables);
        print_changes("fsports", ports, new_ports);
        lists = std::move(new_lists);
        variables = std::move(new_variables);
        ports = std::move(new_ports);
    }
    return fine;
}

Result run(const std::vector<const char *> &words)
{
    const std::string command = words.empty() ? "" : words[0];
    const size_t arguments = words.empty() ? 0 : words.size() - 1;
    const auto is = [&](const char *name, size_t fewest, size_t most) {
        return command == name && arguments >= fewest && arguments <= most;
    };
    const auto word = [&](size_t i) { return i < words.size() ? words[i] : nullptr; };
    if (is("list", 0, 0)) {
        return show_list();
    }
    if (is("add", 1, 3)) {
        return add(word(1), word(2), word(3));
    }
    if (is("move", 2, 2) || is("remove", 1, 1)) {
        return move(word(1), word(2));
    }
    if (is("vars", 0, 0)) {
        return show_variables();
    }
    if (is("get", 1, 1)) {
        return show_variable(word(1));
    }
    if (is("ports", 0, 0)) {
        reports_wanted = true;
        return show_ports();
    }
    if (is("check", 0, 0)) {
        return check();
    }
    if (is("watch", 0, 1)) {
        return watch(word(1));
    }
    const bool asked = command == "--help";
    fputs(usage, asked ? stdout : stderr);
    return asked ? fine : failed;
}

} // namespace

int main(int argc, char **argv)
{
    static char name[] = "cluster_config";
    set_caller_name(name);
    LibraryInit();
    WriteLog = report;
    return run(std::vector<const char *>(argv + 1, argv + argc));
}
