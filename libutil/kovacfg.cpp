// kovacfg.cpp - the keyword configuration file.
//
// Reading. A line is read straight into the work area of its entry, and the entry's fields point
// into it: the parser only writes NULs where a field ends. Two texts of one line may therefore
// overlap (a comment inside a value), and together they may be longer than the line.
//
// The parser takes a line character by character. The first row that fits applies:
//
//     in state            character               what happens
//     COMMENTCONT         any                     nothing
//     any, quoted         a quote                 cut; quoted text ends; VALSTART
//     any                 a quote                 quoted text begins; the next character goes
//                                                 through the rows marked * at once
//     any, quoted         any                     nothing
//   * METASTART           '@'                     the name starts here; NAMECONT
//   * METASTART           any other               nothing
//   * any                 '#' before " @"         the entry is metadata; METASTART
//   * any                 '#'                     the comment starts here; COMMENTCONT
//     any                 white space             in words that are no metadata: a blank or tab is
//                                                 cut; VALSTART
//   * any                 '='                     cut; VALSTART
//   * NAMESTART           any                     the name starts here; NAMECONT
//   * VALSTART            any                     the next value starts here; VALCONT
//   * NAMECONT, VALCONT   any                     nothing
//
// Saving. The old file is not touched before the new text is complete, synced and closed; then the
// new file is renamed over the old name and the folder synced. Whatever fails, and whenever the
// power goes, a complete text is on disk; once a save has returned 0, it is the new one.
#include "koutil/kovacfg.h"

#include "internal/guards.h"
#include "koutil/snprintf.h"
#include "koutil/strint.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr VoError_t status_none = 2;      // no such entry
constexpr VoError_t status_invalid = 11;  // missing argument, NUL byte in the file
constexpr VoError_t status_memory = 20;   // out of memory
constexpr VoError_t status_too_long = 22; // too long, too many

constexpr size_t line_size = 1024;      // the longest line with its line end
constexpr size_t work_size = 1025;      // work area of a new entry: a line and a NUL
constexpr size_t entry_line_max = 1022; // characters of an entry line that is written
constexpr size_t temp_stem_max = 253;   // characters of the path that a temporary name keeps

constexpr char text_memory[] = "KOVA Cfg: Out of memory";
constexpr char text_not_removed[] = "KOVA Cfg: Error removing old copy of cfg file(%d)";
constexpr char text_no_argument[] = "KOVA Cfg: Missing argument";

struct Message {
    char *text;
    size_t size;
};

// Describes a failure, and hands on its status. A status of 0 is no failure.
KO_PRINTF(3, 4) VoError_t report(Message message, VoError_t status, const char *format, ...)
{
    if (status != 0 && message.text != nullptr) {
        va_list args;
        va_start(args, format);
        VoVsnprintf(message.text, message.size, format, args);
        va_end(args);
    }
    return status;
}

struct HndlCloser {
    void operator()(KovaHndl_t *file) const { KovaClose(&file); }
};
using HndlPtr = std::unique_ptr<KovaHndl_t, HndlCloser>;

CfgEnt_t *_KovaCfgEntAlloc()
{
    auto ent = koutil::callocate<CfgEnt_t>();
    if (ent == nullptr) {
        return nullptr;
    }
    ent->_WorkBuff = koutil::callocate<char>(work_size).release();
    if (ent->_WorkBuff == nullptr) {
        return nullptr;
    }
    ent->_WorkBuffSz = work_size;
    return ent.release();
}

// Takes an entry out of its list, if it is in one, and frees it.
void _KovaCfgEntFree(KovaCfg_t *cfg, CfgEnt_t *ent)
{
    if (cfg != nullptr) {
        TAILQ_REMOVE(&cfg->CfgEntHead, ent, CfgEntLink);
    }
    free(ent->_WorkBuff);
    free(ent);
}

struct EntFree {
    void operator()(CfgEnt_t *ent) const { _KovaCfgEntFree(nullptr, ent); }
};
using EntPtr = std::unique_ptr<CfgEnt_t, EntFree>;

void free_cfg(KovaCfg_t *cfg)
{
    while (CfgEnt_t *ent = TAILQ_FIRST(&cfg->CfgEntHead)) {
        _KovaCfgEntFree(cfg, ent);
    }
    if (cfg->KovaHndl != nullptr) {
        KovaClose(&cfg->KovaHndl); // nothing was written through it
    }
    free(cfg);
}

struct CfgFree {
    void operator()(KovaCfg_t *cfg) const { free_cfg(cfg); }
};
using CfgPtr = std::unique_ptr<KovaCfg_t, CfgFree>;

CfgPtr alloc_cfg(KovaCfgType_t type, KovaFlgs_t flags)
{
    CfgPtr cfg(koutil::callocate<KovaCfg_t>().release());
    if (cfg != nullptr) {
        cfg->KovaCfgType = type;
        cfg->KovaFlgs = flags;
        TAILQ_INIT(&cfg->CfgEntHead);
    }
    return cfg;
}

// Converts the values that an entry has; the slots behind them must be 0.
void evaluate_present(CfgEnt_t *ent)
{
    for (size_t i = 0; i < KOVACFG_MAX_VALS && ent->KovaCfgVals[i] != nullptr; i++) {
        ent->KovaCfgIntsValid[i] = StrToInt64(ent->KovaCfgVals[i], &ent->KovaCfgInts[i]);
    }
}

void _KovaCfgIntsEvaluate(CfgEnt_t *ent)
{
    std::fill(std::begin(ent->KovaCfgIntsValid), std::end(ent->KovaCfgIntsValid), 0);
    std::fill(std::begin(ent->KovaCfgInts), std::end(ent->KovaCfgInts), 0);
    evaluate_present(ent);
}

size_t count_values(const CfgEnt_t *ent)
{
    const auto *const begin = std::begin(ent->KovaCfgVals);
    return static_cast<size_t>(std::find(begin, std::end(ent->KovaCfgVals), nullptr) - begin);
}

enum State {
    CFGMOD_NAMESTART,
    CFGMOD_VALSTART,
    CFGMOD_NAMECONT,
    CFGMOD_VALCONT,
    CFGMOD_METASTART,
    CFGMOD_COMMENTCONT
};

struct Line {
    CfgEnt_t *ent;
    bool words;
    State state;
    bool quoted = false;
    size_t values = 0;
};

bool is_quote(char c)
{
    return c == '"' || c == '\x93' || c == '\x94';
}

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

void cut(Line *line, char *at)
{
    *at = '\0';
    line->state = CFGMOD_VALSTART;
}

// The rows of the table by state; false for a value too many.
bool take_text(Line *line, char *at)
{
    if (line->state == CFGMOD_NAMESTART) {
        line->ent->KovaCfgName = at;
        line->state = CFGMOD_NAMECONT;
    } else if (line->state == CFGMOD_VALSTART) {
        if (line->values == KOVACFG_MAX_VALS) {
            return false;
        }
        line->ent->KovaCfgVals[line->values++] = at;
        line->state = CFGMOD_VALCONT;
    }
    return true;
}

// A character outside quoted text, or the first one inside; false for a value too many.
bool take(Line *line, char *at, bool first_in_quotes)
{
    const char c = *at;
    if (line->state == CFGMOD_METASTART) {
        if (c != '@') {
            return true;
        }
        line->state = CFGMOD_NAMESTART;
        return take_text(line, at);
    }
    if (c == '#') {
        if (at[1] == ' ' && at[2] == '@') {
            line->ent->IsMetaData = 1;
            line->state = CFGMOD_METASTART;
        } else {
            line->ent->KovaCfgComment = at;
            line->state = CFGMOD_COMMENTCONT;
        }
        return true;
    }
    if (is_space(c) && line->words && line->ent->IsMetaData == 0 && !first_in_quotes) {
        if (c == ' ' || c == '\t') {
            *at = '\0';
        }
        line->state = CFGMOD_VALSTART;
        return true;
    }
    if (c == '=') {
        cut(line, at);
        return true;
    }
    return take_text(line, at);
}

// Takes a terminated line apart; false for a value too many.
bool parse_line(Line *line, char *text)
{
    for (char *at = text; *at != '\0' && line->state != CFGMOD_COMMENTCONT; at++) {
        if (is_quote(*at)) {
            if (line->quoted) {
                line->quoted = false;
                cut(line, at);
                continue;
            }
            line->quoted = true;
            at++;
            if (*at == '\0') { // a quote at the end opens no field
                break;
            }
            if (!take(line, at, true)) {
                return false;
            }
        } else if (!line->quoted && !take(line, at, false)) {
            return false;
        }
    }
    return true;
}

// Where the parser begins in a file of that form.
Line start_line(CfgEnt_t *ent, KovaCfgType_t type)
{
    const bool named = type == CFGTYPE_ASSIGN || type == CFGTYPE_WORDS;
    return {ent, type == CFGTYPE_WORDS, named ? CFGMOD_NAMESTART : CFGMOD_VALSTART};
}

// Where the reader stands in the file.
struct Reader {
    KovaCfg_t *cfg;
    Message message;
    KovaSz_t offset = 0;
    bool in_line_end = false; // the last read ended in line ends: more of the same run may follow
};

// Reads at most `*size` bytes from where the file stands.
VoError_t read_on(const Reader *reader, char *text, KovaSz_t *size)
{
    const VoError_t status = KovaRead(reader->cfg->KovaHndl, text, size);
    return report(reader->message, status, "KOVA Cfg: Internal error reading cfg file (%d)",
                  status);
}

VoError_t seek_and_read(const Reader *reader, char *text, KovaSz_t *size)
{
    const VoError_t status = KovaSeek(reader->cfg->KovaHndl, reader->offset);
    if (status != 0) {
        return report(reader->message, status, "KOVA Cfg: Internal Error: seek failed (%d)",
                      status);
    }
    *size = line_size;
    return read_on(reader, text, size);
}

// Fetches the next line, terminated, into `text`, with what the read brings behind it. `*size` is
// what was read, 0 at the end of the file; `*length` is the length of the line. Nearly always this
// is one seek and one read.
VoError_t fetch_line(Reader *reader, char *text, KovaSz_t *size, size_t *length)
{
    VoError_t status = seek_and_read(reader, text, size);
    while (status == 0 && reader->in_line_end && *size > 0) {
        text[*size] = '\0';
        const size_t rest = strspn(text, "\r\n");
        if (rest == 0) {
            break;
        }
        reader->offset += rest;
        reader->in_line_end = rest == *size;
        status = seek_and_read(reader, text, size);
    }
    reader->in_line_end = false;
    for (KovaSz_t more = *size; status == 0 && more > 0; *size += more) {
        text[*size] = '\0';
        *length = strcspn(text, "\r\n");
        if (*length < *size || *size == line_size) {
            break;
        }
        more = line_size - *size; // the last line, or a read that came short
        status = read_on(reader, text + *size, &more);
    }
    return status;
}

VoError_t nul_byte(const Reader *reader)
{
    return report(reader->message, status_invalid, "Invalid character in file.");
}

// Moves behind a line that has been taken apart; `line_end` is what stood in place of its
// terminator.
VoError_t pass_line(Reader *reader, const char *text, KovaSz_t size, size_t length, char line_end)
{
    reader->offset += length;
    if (length < size && line_end == '\0') {
        return nul_byte(reader);
    }
    if (length < size) {
        const size_t run = 1 + strspn(text + length + 1, "\r\n");
        reader->offset += run;
        reader->in_line_end = length + run == size;
        return 0;
    }
    if (size < line_size) {
        return 0; // the last line
    }
    char next = '\0';
    KovaSz_t more = 1;
    const VoError_t status = read_on(reader, &next, &more);
    if (status != 0 || more == 0) {
        return status; // the last line as well, of full length
    }
    return next == '\0' ? nul_byte(reader)
                        : report(reader->message, status_too_long, "Line is too long.");
}

// Reads the next line into a new entry at the end of the list; `*at_end` says that there was none.
VoError_t read_entry(Reader *reader, bool *at_end)
{
    EntPtr ent(_KovaCfgEntAlloc());
    if (ent == nullptr) {
        return report(reader->message, status_memory, text_memory);
    }
    char *const text = ent->_WorkBuff;
    KovaSz_t size = 0;
    size_t length = 0;
    VoError_t status = fetch_line(reader, text, &size, &length);
    *at_end = size == 0;
    if (status != 0 || size == 0) {
        return status;
    }
    const char line_end = text[length];
    text[length] = '\0';
    Line line = start_line(ent.get(), reader->cfg->KovaCfgType);
    if (!parse_line(&line, text)) {
        const char *name = ent->KovaCfgName != nullptr ? ent->KovaCfgName : "(null)";
        return report(reader->message, status_too_long, "Line '%s' has too many fields.", name);
    }
    status = pass_line(reader, text, size, length, line_end);
    if (status == 0) {
        evaluate_present(ent.get());
        CfgEnt_t *const added = ent.release();
        TAILQ_INSERT_TAIL(&reader->cfg->CfgEntHead, added, CfgEntLink);
    }
    return status;
}

VoError_t _KovaCfgParse(KovaCfg_t *cfg, Message message)
{
    Reader reader = {cfg, message};
    bool at_end = false;
    VoError_t status = 0;
    while (status == 0 && !at_end) {
        status = read_entry(&reader, &at_end);
    }
    return status;
}

// Appends texts to a work area; every text but null ones gets its place.
struct Packer {
    char *at;
    size_t room;

    // False when the text does not fit.
    bool add(const char *text, char **field)
    {
        if (text == nullptr) {
            return true;
        }
        const size_t length = strlen(text);
        if (length >= room) {
            return false;
        }
        memcpy(at, text, length + 1);
        *field = at;
        at += length + 1;
        room -= length + 1;
        return true;
    }
};

// Fills a new entry; null, or why the texts do not fit.
const char *pack_entry(CfgEnt_t *ent, const char *name, char *const *vals, const char *comment)
{
    Packer packer = {ent->_WorkBuff, line_size};
    if (!packer.add(comment, &ent->KovaCfgComment)) {
        return "KOVA Cfg: Line is too long to insert into config file";
    }
    if (!packer.add(name, &ent->KovaCfgName)) {
        return "KOVA Cfg: : Line is too long to insert into config file (2)";
    }
    for (size_t i = 0; vals != nullptr && i < KOVACFG_MAX_VALS && vals[i] != nullptr; i++) {
        if (!packer.add(vals[i], &ent->KovaCfgVals[i])) {
            return "KOVA Cfg: Line is too long to insert into config file(3)";
        }
    }
    return nullptr;
}

// The entry at a position, or null.
CfgEnt_t *entry_at(const KovaCfg_t *cfg, int index)
{
    CfgEnt_t *ent = TAILQ_FIRST(&cfg->CfgEntHead);
    while (ent != nullptr && index-- > 0) {
        ent = TAILQ_NEXT(ent, CfgEntLink);
    }
    return ent;
}

size_t text_room(const char *text)
{
    return text != nullptr ? strlen(text) + 1 : 0;
}

// Room for the texts of an entry, each on its own. Texts of a line that was read may share bytes.
size_t entry_room(const CfgEnt_t *ent)
{
    size_t room = text_room(ent->KovaCfgName) + text_room(ent->KovaCfgComment);
    for (const char *value : ent->KovaCfgVals) {
        room += text_room(value);
    }
    return room;
}

bool same_text(const char *a, const char *b)
{
    return a == nullptr || b == nullptr ? a == b : strcmp(a, b) == 0;
}

constexpr VoError_t no_such_file = ENOENT;

// A save on its way.
struct Save {
    KovaCfg_t *cfg;
    Message message;
    char temp_path[temp_stem_max + 3] = "";
    HndlPtr file;
};

// Opens the first temporary name that is free, or the last one whatever it holds. Another process
// may take a name between the test and the open: that name is passed over, too.
VoError_t open_temp(Save *save)
{
    const auto stem = static_cast<int>(temp_stem_max);
    const KovaFlgs_t flags = KOVA_OPEN_READ | KOVA_OPEN_RDWR | KOVA_OPEN_CREATE;
    VoError_t status = 0;
    KovaHndl_t *file = nullptr;
    for (char letter = 'a' - 1; letter <= 'z'; letter++) {
        const char suffix[] = {letter < 'a' ? '\0' : letter, '\0'};
        VoSnprintf(save->temp_path, sizeof save->temp_path, "%.*s~%s", stem, save->cfg->KovaCfgPath,
                   suffix);
        KovaStat_t info;
        if (letter < 'z' && KovaStat(save->temp_path, &info) != no_such_file) {
            continue;
        }
        status = KovaOpen(save->temp_path, letter < 'z' ? flags | KOVA_OPEN_EXCL : flags, &file);
        if (letter == 'z' || status != EEXIST) {
            break;
        }
    }
    save->file.reset(file);
    if (status == 0) {
        status = KovaFTruncate(file, 0);
    }
    return report(save->message, status, "KOVA Cfg: Error opening %s", save->temp_path);
}

// Gives the new file the mode and owner of the old one, as far as this process may.
void keep_mode_and_owner(const Save *save)
{
    struct stat old_file;
    struct stat new_file;
    const int fd = save->file->_KovaHndl;
    if (stat(save->cfg->KovaCfgPath, &old_file) != 0 || fstat(fd, &new_file) != 0) {
        return;
    }
    const bool kept_group = new_file.st_gid == old_file.st_gid ||
                            fchown(fd, static_cast<uid_t>(-1), old_file.st_gid) == 0;
    const bool kept_owner = new_file.st_uid == old_file.st_uid ||
                            fchown(fd, old_file.st_uid, static_cast<gid_t>(-1)) == 0;
    mode_t mode = old_file.st_mode & 07777;
    if (!kept_group) {
        mode &= ~static_cast<mode_t>(S_IRWXG | S_ISGID); // these rights were another group's
    }
    if (!kept_owner) {
        mode &= ~static_cast<mode_t>(S_ISUID);
    }
    (void)fchmod(fd, mode); // where it is refused, the file has the rights of a new one
}

// Writes all of a text, however little the system takes at a time.
VoError_t write_all(const Save *save, const char *text, size_t size)
{
    while (size > 0) {
        KovaSz_t part = size;
        const VoError_t status = KovaWrite(save->file.get(), text, &part);
        if (status != 0) {
            return status;
        }
        if (part == 0) {
            return EIO;
        }
        text += part;
        size -= part;
    }
    return 0;
}

VoError_t too_long_to_save(const Save *save, const char *line)
{
    return report(save->message, status_too_long, "KOVA Cfg: Line is too long '%s'", line);
}

// A comment that could not be read back would make the file unreadable.
VoError_t write_comment(const Save *save, const char *comment)
{
    char line[line_size + 1];
    const int length = VoSnprintf(line, sizeof line, *comment == '#' ? "%s\n" : "# %s\n", comment);
    if (length < 0 || static_cast<size_t>(length) > line_size) {
        return too_long_to_save(save, line);
    }
    const VoError_t status = write_all(save, line, static_cast<size_t>(length));
    return report(save->message, status, "KOVA Cfg: Error writing %s", save->temp_path);
}

// A line under construction: counts all that is added, keeps what fits.
struct LineText {
    char text[line_size + 1] = "";
    size_t length = 0;

    void add(const char *more)
    {
        for (; *more != '\0'; more++, length++) {
            if (length < line_size) {
                text[length] = *more;
                text[length + 1] = '\0';
            }
        }
    }
};

// Whether the line can be read back: texts that stood in quotes may hold more separators than a
// line may have values.
bool reads_back(const Save *save, const LineText *line)
{
    CfgEnt_t ent = {};
    Line parsed = start_line(&ent, save->cfg->KovaCfgType);
    LineText text = *line;
    return parse_line(&parsed, text.text);
}

VoError_t write_entry(const Save *save, const CfgEnt_t *ent)
{
    LineText line;
    if (ent->KovaCfgName != nullptr) {
        line.add(ent->KovaCfgName);
    }
    if (save->cfg->KovaCfgType == CFGTYPE_ASSIGN) {
        if (ent->KovaCfgVals[0] != nullptr) {
            line.add("=");
            line.add(ent->KovaCfgVals[0]);
        }
    } else {
        for (size_t i = 0; i < KOVACFG_MAX_VALS && ent->KovaCfgVals[i] != nullptr; i++) {
            line.add(line.length > 0 ? " " : "");
            line.add(ent->KovaCfgVals[i]);
        }
    }
    if (line.length > entry_line_max) {
        return too_long_to_save(save, line.text);
    }
    if (line.length == 0) {
        return 0;
    }
    if (!reads_back(save, &line)) {
        return report(save->message, status_too_long, "Line '%s' has too many fields.", line.text);
    }
    line.add("\n");
    const VoError_t status = write_all(save, line.text, line.length);
    return report(save->message, status, "KOVA Cfg: Error writing to the configuration file (%d)",
                  status);
}

// Writes the whole text, syncs and closes it.
VoError_t write_temp(Save *save)
{
    const CfgEnt_t *ent;
    VoError_t status = 0;
    TAILQ_FOREACH (ent, &save->cfg->CfgEntHead, CfgEntLink) {
        if (ent->KovaCfgComment != nullptr) {
            status = write_comment(save, ent->KovaCfgComment);
        }
        if (status == 0) {
            status = write_entry(save, ent);
        }
        if (status != 0) {
            return status;
        }
    }
    // EINVAL: a file system that cannot sync.
    if (fsync(save->file->_KovaHndl) != 0 && errno != EINVAL) {
        status = errno;
        return report(save->message, status,
                      "KOVA Cfg: Error writing to the configuration file (%d)", status);
    }
    KovaHndl_t *file = save->file.release();
    status = KovaClose(&file);
    return report(save->message, status, "KOVA Cfg: Error closing temp configuration file (%d)",
                  status);
}

// Whether moving the target out of the way may help where renaming over it was refused.
bool moving_may_help(VoError_t status)
{
    return status == EEXIST || status == EBUSY || status == EACCES || status == EPERM;
}

// Moves the old file to a name that nobody has.
VoError_t move_aside(const char *path, char (&aside)[sizeof(KovaCfg_t::KovaCfgPath)])
{
    for (char letter = 'a' - 1; letter <= 'z'; letter++) {
        const char suffix[] = {letter < 'a' ? '\0' : letter, '\0'};
        VoSnprintf(aside, sizeof aside, "%.*s~~%s", static_cast<int>(sizeof aside - sizeof "~~x"),
                   path, suffix);
        KovaStat_t info;
        if (KovaStat(aside, &info) == no_such_file) {
            return KovaRename(path, aside);
        }
    }
    return EEXIST;
}

// Makes a new name in the file's folder last. A folder that may be written but not read cannot be
// synced, nor can some file systems.
VoError_t sync_folder(const char *path)
{
    char folder[sizeof(KovaCfg_t::KovaCfgPath)] = ".";
    const char *slash = strrchr(path, '/');
    if (slash != nullptr) {
        VoSnprintf(folder, sizeof folder, "%.*s", static_cast<int>(slash - path) + 1, path);
    }
    const koutil::Fd fd(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool synced = fd && fsync(fd.get()) == 0;
    return synced || errno == EINVAL || errno == EACCES ? 0 : errno;
}

VoError_t replace_old(const Save *save)
{
    const char *path = save->cfg->KovaCfgPath;
    VoError_t status = KovaRename(save->temp_path, path);
    if (moving_may_help(status)) {
        char aside[sizeof save->cfg->KovaCfgPath];
        status = move_aside(path, aside);
        if (status != 0) {
            return report(save->message, status, text_not_removed, status);
        }
        status = KovaRename(save->temp_path, path);
        (void)(status == 0 ? KovaDelete(aside) : KovaRename(aside, path));
    } else if (status == EISDIR) { // a directory stands there now
        return report(save->message, status, text_not_removed, status);
    }
    if (status == 0) {
        status = sync_folder(path);
    }
    return report(save->message, status, "KOVA Cfg: Error renaming new copy of cfg file (%d)",
                  status);
}

VoError_t save_cfg(KovaCfg_t *cfg, Message message)
{
    Save save = {cfg, message, "", nullptr};
    VoError_t status = open_temp(&save);
    if (status != 0) {
        return status;
    }
    keep_mode_and_owner(&save);
    status = write_temp(&save);
    if (status != 0) {
        return status;
    }
    if (cfg->KovaHndl != nullptr) {
        status = KovaClose(&cfg->KovaHndl);
        if (status != 0) {
            return report(message, status, "KOVA Cfg: Error closing configuration file (%d)",
                          status);
        }
    }
    status = replace_old(&save);
    if (status != 0) {
        return status;
    }
    // The file is there now: asking for a new one would fail.
    status = KovaOpen(cfg->KovaCfgPath, cfg->KovaFlgs & ~KOVA_OPEN_EXCL, &cfg->KovaHndl);
    return report(message, status, "KOVA Cfg: Error reopening new copy of cfg file (%d)", status);
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_word(const char *text, const char *word)
{
    while (*word != '\0' && lower(*text) == *word) {
        text++;
        word++;
    }
    return *text == '\0' && *word == '\0';
}

} // namespace

VoError_t KovaCfgOpen(const char *KovaCfgPath, KovaFlgs_t KovaFlgs, KovaCfgType_t KovaCfgType,
                      KovaCfg_t **KovaCfgOut, char *ErrMsg, size_t ErrMsgSz)
{
    const Message message = {ErrMsg, ErrMsgSz};
    if (KovaCfgOut != nullptr) {
        *KovaCfgOut = nullptr;
    }
    if (KovaCfgPath == nullptr || KovaCfgOut == nullptr) {
        return report(message, status_invalid, text_no_argument);
    }
    CfgPtr cfg = alloc_cfg(KovaCfgType, KovaFlgs);
    if (cfg == nullptr) {
        return report(message, status_memory, text_memory);
    }
    VoError_t status = status_too_long;
    const size_t length = strlen(KovaCfgPath);
    if (length < sizeof cfg->KovaCfgPath) {
        memcpy(cfg->KovaCfgPath, KovaCfgPath, length + 1);
        status = KovaOpen(KovaCfgPath, KovaFlgs, &cfg->KovaHndl);
    }
    if (status != 0) {
        return report(message, status, "KOVA Cfg: Error(%d) opening '%s'", status, KovaCfgPath);
    }
    status = _KovaCfgParse(cfg.get(), message);
    if (status == 0) {
        *KovaCfgOut = cfg.release();
    }
    return status;
}

VoError_t KovaCfgClose(KovaCfg_t **KovaCfgIn, int SaveChanges, char *ErrMsg, size_t ErrMsgSz)
{
    if (KovaCfgIn == nullptr || *KovaCfgIn == nullptr) {
        return 0;
    }
    const CfgPtr cfg(*KovaCfgIn);
    *KovaCfgIn = nullptr;
    return SaveChanges == 1 ? save_cfg(cfg.get(), {ErrMsg, ErrMsgSz}) : 0;
}

VoError_t KovaCfgSave(KovaCfg_t *KovaCfg, char *ErrMsg, size_t ErrMsgSz)
{
    const Message message = {ErrMsg, ErrMsgSz};
    return KovaCfg != nullptr ? save_cfg(KovaCfg, message)
                              : report(message, status_invalid, text_no_argument);
}

VoError_t KovaCfgCopy(KovaCfg_t **KovaCfgTrg, KovaCfg_t *KovaCfgSrc, char *ErrMsg, size_t ErrMsgSz)
{
    const Message message = {ErrMsg, ErrMsgSz};
    if (KovaCfgTrg != nullptr) {
        *KovaCfgTrg = nullptr;
    }
    if (KovaCfgTrg == nullptr || KovaCfgSrc == nullptr) {
        return report(message, status_invalid, text_no_argument);
    }
    CfgPtr copy = alloc_cfg(KovaCfgSrc->KovaCfgType, KovaCfgSrc->KovaFlgs);
    if (copy == nullptr) {
        return report(message, status_memory, text_memory);
    }
    memcpy(copy->KovaCfgPath, KovaCfgSrc->KovaCfgPath, sizeof copy->KovaCfgPath);
    CfgEnt_t *ent;
    TAILQ_FOREACH (ent, &KovaCfgSrc->CfgEntHead, CfgEntLink) {
        const VoError_t status = KovaCfgInsert(copy.get(), -1, ent->KovaCfgName, ent->KovaCfgVals,
                                               ent->KovaCfgComment, ErrMsg, ErrMsgSz);
        if (status != 0) {
            return status;
        }
    }
    *KovaCfgTrg = copy.release();
    return 0;
}

int KovaCfgCmp(KovaCfg_t *KovaCfgA, KovaCfg_t *KovaCfgB)
{
    if (KovaCfgA == nullptr || KovaCfgB == nullptr) {
        return KovaCfgA != KovaCfgB;
    }
    const int paths =
        strncmp(KovaCfgA->KovaCfgPath, KovaCfgB->KovaCfgPath, sizeof KovaCfgA->KovaCfgPath);
    if (paths != 0) {
        return paths;
    }
    if (KovaCfgA->KovaCfgType != KovaCfgB->KovaCfgType ||
        KovaCfgA->KovaFlgs != KovaCfgB->KovaFlgs) {
        return 1;
    }
    CfgEnt_t *a = TAILQ_FIRST(&KovaCfgA->CfgEntHead);
    CfgEnt_t *b = TAILQ_FIRST(&KovaCfgB->CfgEntHead);
    while (a != nullptr && b != nullptr) {
        if (CfgEntCmp(a, b->KovaCfgName, b->KovaCfgVals, b->KovaCfgComment) != 0) {
            return 1;
        }
        a = TAILQ_NEXT(a, CfgEntLink);
        b = TAILQ_NEXT(b, CfgEntLink);
    }
    return a != b;
}

VoError_t KovaCfgFind(KovaCfg_t *KovaCfg, const char *KovaCfgName, char **Vals, const char *Comment,
                      CfgEnt_t **CfgEntOut, int *IndexOut)
{
    CfgEnt_t *ent = KovaCfg != nullptr ? TAILQ_FIRST(&KovaCfg->CfgEntHead) : nullptr;
    int index = 0;
    while (ent != nullptr && CfgEntCmp(ent, KovaCfgName, Vals, Comment) != 0) {
        ent = TAILQ_NEXT(ent, CfgEntLink);
        index++;
    }
    if (CfgEntOut != nullptr) {
        *CfgEntOut = ent;
    }
    if (IndexOut != nullptr) {
        *IndexOut = ent != nullptr ? index : -1;
    }
    if (KovaCfg == nullptr) {
        return status_invalid;
    }
    return ent != nullptr ? 0 : status_none;
}

VoError_t KovaCfgEnum(KovaCfg_t *KovaCfg, int Index, CfgEnt_t **CfgEntOut)
{
    if (CfgEntOut == nullptr) {
        return status_invalid;
    }
    *CfgEntOut = nullptr;
    if (KovaCfg == nullptr || Index < 0) {
        return status_invalid;
    }
    *CfgEntOut = entry_at(KovaCfg, Index);
    return *CfgEntOut != nullptr ? 0 : status_none;
}

VoError_t KovaCfgNext(KovaCfg_t *KovaCfg, CfgEnt_t **CfgEntOut)
{
    if (KovaCfg == nullptr || CfgEntOut == nullptr) {
        return status_invalid;
    }
    *CfgEntOut = *CfgEntOut == nullptr ? TAILQ_FIRST(&KovaCfg->CfgEntHead)
                                       : TAILQ_NEXT(*CfgEntOut, CfgEntLink);
    return *CfgEntOut != nullptr ? 0 : status_none;
}

VoError_t KovaCfgInsert(KovaCfg_t *KovaCfg, int Index, const char *ValName, char **Vals,
                        const char *Comment, char *ErrMsg, size_t ErrMsgSz)
{
    const Message message = {ErrMsg, ErrMsgSz};
    if (KovaCfg == nullptr) {
        return report(message, status_invalid, text_no_argument);
    }
    EntPtr ent(_KovaCfgEntAlloc());
    if (ent == nullptr) {
        return report(message, status_memory, text_memory);
    }
    const char *problem = pack_entry(ent.get(), ValName, Vals, Comment);
    if (problem != nullptr) {
        return report(message, status_too_long, "%s", problem);
    }
    _KovaCfgIntsEvaluate(ent.get());
    CfgEnt_t *const before = Index >= 0 ? entry_at(KovaCfg, Index) : nullptr;
    CfgEnt_t *const added = ent.release();
    if (before != nullptr) {
        TAILQ_INSERT_BEFORE(before, added, CfgEntLink);
    } else {
        TAILQ_INSERT_TAIL(&KovaCfg->CfgEntHead, added, CfgEntLink);
    }
    return 0;
}

VoError_t KovaCfgRemove(KovaCfg_t *KovaCfg, int Index)
{
    CfgEnt_t *ent = nullptr;
    const VoError_t status = KovaCfgEnum(KovaCfg, Index, &ent);
    if (status == 0) {
        _KovaCfgEntFree(KovaCfg, ent);
    }
    return status;
}

VoError_t KovaCfgEntValInsert(CfgEnt_t *CfgEnt, int Index, const char *ValString)
{
    if (CfgEnt == nullptr || ValString == nullptr) {
        return status_invalid;
    }
    const size_t count = count_values(CfgEnt);
    if (count == KOVACFG_MAX_VALS) {
        return status_too_long;
    }
    if (Index < -1 || Index > static_cast<int>(count)) {
        return status_invalid;
    }
    const size_t place = Index == -1 ? count : static_cast<size_t>(Index);
    const size_t added = text_room(ValString);
    const size_t size = std::max(CfgEnt->_WorkBuffSz, entry_room(CfgEnt)) + added;
    auto area = koutil::callocate<char>(size);
    if (area == nullptr) {
        return status_memory;
    }
    CfgEnt_t moved = {};
    Packer packer = {area.get(), size};
    packer.add(CfgEnt->KovaCfgName, &moved.KovaCfgName);
    for (size_t i = 0; i <= count; i++) {
        const char *value = i < place    ? CfgEnt->KovaCfgVals[i]
                            : i == place ? ValString
                                         : CfgEnt->KovaCfgVals[i - 1];
        packer.add(value, &moved.KovaCfgVals[i]);
    }
    packer.add(CfgEnt->KovaCfgComment, &moved.KovaCfgComment);

    CfgEnt->KovaCfgName = moved.KovaCfgName;
    CfgEnt->KovaCfgComment = moved.KovaCfgComment;
    std::copy(std::begin(moved.KovaCfgVals), std::end(moved.KovaCfgVals), CfgEnt->KovaCfgVals);
    free(CfgEnt->_WorkBuff);
    CfgEnt->_WorkBuff = area.release();
    CfgEnt->_WorkBuffSz = size;
    _KovaCfgIntsEvaluate(CfgEnt);
    return 0;
}

void KovaCfgEntValDelete(CfgEnt_t *CfgEnt, int Index)
{
    if (CfgEnt == nullptr || Index < 0 || static_cast<size_t>(Index) >= count_values(CfgEnt)) {
        return;
    }
    char **const removed = CfgEnt->KovaCfgVals + Index;
    std::copy(removed + 1, std::end(CfgEnt->KovaCfgVals), removed);
    CfgEnt->KovaCfgVals[KOVACFG_MAX_VALS - 1] = nullptr;
    _KovaCfgIntsEvaluate(CfgEnt);
}

int CfgEntCmp(CfgEnt_t *CfgEnt, const char *KovaCfgName, char **Vals, const char *Comment)
{
    if (CfgEnt == nullptr) {
        return 1;
    }
    if ((KovaCfgName != nullptr && !same_text(CfgEnt->KovaCfgName, KovaCfgName)) ||
        (Comment != nullptr && !same_text(CfgEnt->KovaCfgComment, Comment))) {
        return 1;
    }
    if (Vals == nullptr) {
        return 0;
    }
    return std::equal(std::begin(CfgEnt->KovaCfgVals), std::end(CfgEnt->KovaCfgVals), Vals,
                      same_text)
               ? 0
               : 1;
}

ThreeState_t ThreeStateFmStr(const char *InStr)
{
    if (InStr == nullptr) {
        return THREEST_UNKNOWN;
    }
    if (same_word(InStr, "yes") || same_word(InStr, "1")) {
        return THREEST_YES;
    }
    return same_word(InStr, "no") || same_word(InStr, "0") ? THREEST_NO : THREEST_UNKNOWN;
}
