// Every way of printing a segment starts from one catalogue of columns, so that the table, the
// detailed view and the JSON keys cannot drift apart. libsmartcols lays out the tables, escapes
// what a terminal must not see in them, and writes the JSON.
#include "Output.hpp"

#include <grp.h>
#include <libsmartcols.h>
#include <pwd.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <new>

namespace spfshm {

namespace {

// clang-format off
enum ColumnId {
    kType, kName, kNameHex, kKey, kId, kOwner, kUid, kGroup, kGid, kTrustee, kCuid, kCgid, kMode,
    kSize, kAlloc, kNattch, kCpid, kLpid, kCommand, kUsers, kUsersUser, kUsersCommand, kState,
    kRemoving, kChanged, kAge, kRemoved, kColumnCount
};
// clang-format on

// How a column's JSON value is written: "array" and "raw" cells are JSON already.
enum class Kind { String, Number, Array, Boolean };

struct Column {
    const char* header;  // the table's heading and the name --output takes
    const char* key;     // the JSON key; the detailed view turns "_" into " "
    Kind kind;
    int flags;       // libsmartcols' layout in a table
    bool byDefault;  // in the table when --output does not say
};

constexpr int kRight = SCOLS_FL_RIGHT, kLong = SCOLS_FL_NOEXTREMES;

const Column kColumns[kColumnCount] = {
    {"TYPE", "backend", Kind::String, 0, true},
    {"NAME", "name", Kind::String, kLong, true},
    {"NAME_HEX", "name_hex", Kind::String, kLong, false},
    {"KEY", "key", Kind::String, 0, false},
    {"ID", "id", Kind::Number, kRight, true},
    {"OWNER", "owner", Kind::String, 0, true},
    {"UID", "uid", Kind::Number, kRight, false},
    {"GROUP", "group", Kind::String, 0, true},
    {"GID", "gid", Kind::Number, kRight, false},
    {"TRUSTEE", "trustee", Kind::String, 0, false},
    {"CUID", "creator_uid", Kind::Number, kRight, false},
    {"CGID", "creator_gid", Kind::Number, kRight, false},
    {"MODE", "mode", Kind::String, 0, true},
    {"SIZE", "size", Kind::Number, kRight, true},
    {"ALLOC", "allocated", Kind::Number, kRight, true},
    {"NATTCH", "attached", Kind::Number, kRight, false},
    {"CPID", "creator_pid", Kind::Number, kRight, false},
    {"LPID", "last_pid", Kind::Number, kRight, false},
    {"COMMAND", "command", Kind::String, kLong | SCOLS_FL_TRUNC, false},
    {"USERS", "users", Kind::Array, kRight, true},
    {"USERS_USER", "users_user", Kind::Array, 0, false},
    {"USERS_COMMAND", "users_command", Kind::Array, kLong, false},
    {"STATE", "state", Kind::String, 0, true},
    {"REMOVING", "marked_for_removal", Kind::Boolean, 0, false},
    {"CHANGED", "changed", Kind::Number, 0, false},
    {"AGE", "age", Kind::Number, kRight, true},
    {"REMOVED", "removed", Kind::Boolean, 0, false},
};

enum class Mode { Table, Json, Details };

// The length of the UTF-8 sequence that starts at `at`; 0 when none does (a stray byte, an
// overlong form, a surrogate or a code point past U+10FFFF).
std::size_t utf8Length(const std::string& text, std::size_t at) {
    const unsigned char c = text[at];
    if (c < 0x80) return 1;
    const std::size_t length = c >= 0xc2 && c <= 0xdf   ? 2
                               : c >= 0xe0 && c <= 0xef ? 3
                               : c >= 0xf0 && c <= 0xf4 ? 4
                                                        : 0;
    if (length == 0 || at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((static_cast<unsigned char>(text[at + i]) & 0xc0) != 0x80) return 0;
    const unsigned char d = text[at + 1];
    if ((c == 0xe0 && d < 0xa0) || (c == 0xed && d > 0x9f) || (c == 0xf0 && d < 0x90) ||
        (c == 0xf4 && d > 0x8f)) {
        return 0;
    }
    return length;
}

void appendHex(std::string& out, unsigned char byte, const char* format) {
    char text[8];
    std::snprintf(text, sizeof text, format, byte);
    out += text;
}

// Valid UTF-8 for JSON: the text itself when it is, else with each byte that is no character
// written as \xHH (and the "\" of a "\x" as \x5c); name_hex keeps the exact bytes.
std::string jsonSafe(const std::string& text) {
    std::size_t at = 0, length = 0;
    while (at < text.size() && (length = utf8Length(text, at)) != 0) at += length;
    if (at == text.size()) return text;
    std::string out;
    for (at = 0; at < text.size(); at += std::max<std::size_t>(length, 1)) {
        length = utf8Length(text, at);
        if (length == 0 || (text[at] == '\\' && text[at + 1] == 'x'))
            appendHex(out, static_cast<unsigned char>(text[at]), "\\x%02x");
        else
            out.append(text, at, length);
    }
    return out;
}

// A JSON string for an array element; `text` is valid UTF-8 already.
std::string quotedJson(const std::string& text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\')
            out += '\\', out += static_cast<char>(c);
        else if (c < 0x20 || c == 0x7f)
            appendHex(out, c, "\\u%04x");
        else
            out += static_cast<char>(c);
    }
    return out + "\"";
}


template <typename Entry, typename Id, typename Lookup>
std::string databaseName(Id id, Lookup lookup, char* Entry::*field) {
    static std::map<Id, std::string> known;
    const auto found = known.find(id);
    if (found != known.end()) return found->second;
    const Entry* entry = lookup(id);
    return known[id] = entry != nullptr ? std::string(entry->*field) : std::to_string(id);
}

std::string userName(uid_t uid) { return databaseName<passwd>(uid, ::getpwuid, &passwd::pw_name); }
std::string groupName(gid_t gid) { return databaseName<group>(gid, ::getgrgid, &group::gr_name); }

std::string octal(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

std::string hexKey(std::int32_t key) {
    char text[12];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(key));
    return text;
}

std::string hexBytes(const std::string& text) {
    std::string out;
    for (const unsigned char c : text) appendHex(out, c, "%02x");
    return out;
}

long long age(const Segment& segment) {
    return std::max<long long>(0, static_cast<long long>(std::time(nullptr) - segment.changed));
}

std::string humanAge(long long seconds) {
    const long long scale[] = {86400, 3600, 60, 1};
    const char units[] = "dhms";
    int at = 0;
    while (at < 3 && seconds < scale[at]) ++at;
    return std::to_string(seconds / scale[at]) + units[at];
}

std::string readProc(pid_t pid, const char* what) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + what, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// A live process's command line, its arguments joined by blanks; "[name]" when it has none.
std::string commandOf(pid_t pid) {
    std::string text = readProc(pid, "cmdline");
    while (!text.empty() && text.back() == '\0') text.pop_back();
    std::replace(text.begin(), text.end(), '\0', ' ');
    if (!text.empty()) return text;
    text = readProc(pid, "comm");
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text.empty() ? "" : "[" + text + "]";
}

std::string processUser(pid_t pid) {
    struct stat status;
    const std::string path = "/proc/" + std::to_string(pid);
    return ::stat(path.c_str(), &status) == 0 ? userName(status.st_uid) : "?";
}

// The creator's command, else the last user's, while it lives; for POSIX, a user's.
std::string command(const Row& row) {
    const Segment& s = row.segment;
    if (!s.sysv) return row.users.empty() ? "" : commandOf(row.users.front());
    const auto lives = [&](pid_t pid) {
        return pid > 0 && row.usage != nullptr && row.usage->alive.count(pid) != 0;
    };
    return lives(s.creatorPid) ? commandOf(s.creatorPid)
           : lives(s.lastPid)  ? commandOf(s.lastPid)
                               : "";
}

// The users' pids, names or commands: a JSON array, a comma-separated cell, or (details) one
// escaped "PID USER COMMAND" line each.
std::string userList(const Row& row, Mode mode, int column) {
    std::string out;
    for (const pid_t pid : row.users) {
        std::string item = column == kUsers       ? std::to_string(pid)
                           : column == kUsersUser ? processUser(pid)
                                                  : commandOf(pid);
        if (mode == Mode::Json && column != kUsers) item = quotedJson(jsonSafe(item));
        if (mode == Mode::Details && column == kUsersCommand)
            item = escapedName(std::to_string(pid) + " " + processUser(pid) + " " + item);
        if (!out.empty()) out += mode == Mode::Json ? "," : mode == Mode::Table ? ", " : "\n";
        out += item;
    }
    return mode == Mode::Json ? "[" + out + "]" : out;
}

std::string size(unsigned long long bytes, Mode mode, bool exact) {
    return mode == Mode::Table && !exact ? humanSize(bytes) : std::to_string(bytes);
}

// A column's value in one row: empty means null in JSON and "not shown" in the details; a table
// shows "-" where a column does not apply.
std::string value(int column, const Row& row, Mode mode, bool exact) {
    const Segment& s = row.segment;
    const bool v = s.sysv, details = mode == Mode::Details;
    const std::string none = mode == Mode::Table ? "-" : "";
    const auto sysvOnly = [&](auto number) { return v ? std::to_string(number) : none; };
    const auto withName = [&](auto id, const std::string& name) {
        return !v ? none : std::to_string(id) + (details ? " (" + name + ")" : "");
    };
    const bool trusted = (s.mode & 070) == 070;  // the library's rule for a trustee
    switch (column) {
        case kType: return details ? (v ? "System V" : "POSIX") : (v ? "sysv" : "posix");
        case kName: return v ? (mode == Mode::Table ? hexKey(s.key) : "") : "/" + s.name;
        case kNameHex: return v ? none : hexBytes("/" + s.name);
        case kKey: return v ? hexKey(s.key) : none;
        case kId: return sysvOnly(s.id);
        case kOwner: return userName(s.uid);
        case kUid: return details ? "" : std::to_string(s.uid);
        case kGroup: return groupName(s.gid);
        case kGid: return details ? "" : std::to_string(s.gid);
        case kTrustee: return trusted ? groupName(s.gid) : details ? "(none)" : none;
        case kCuid: return withName(s.creatorUid, userName(s.creatorUid));
        case kCgid: return withName(s.creatorGid, groupName(s.creatorGid));
        case kMode: return octal(s.mode);
        case kSize: return size(s.size, mode, exact);
        case kAlloc: return size(s.allocated, mode, exact);
        case kNattch: return sysvOnly(s.attached);
        case kCpid: return sysvOnly(s.creatorPid);
        case kLpid: return sysvOnly(s.lastPid);
        case kCommand: {
            const std::string text = command(row);
            return text.empty() ? none : text;
        }
        case kUsers:
            if (mode == Mode::Table) return std::to_string(v ? s.attached : row.users.size());
            return details && row.users.empty() ? "(none found)" : userList(row, mode, kUsers);
        case kUsersUser: return details ? "" : userList(row, mode, column);
        case kUsersCommand: return userList(row, mode, column);
        case kState: return row.state;
        case kRemoving: return !v ? none : s.markedForRemoval ? "yes" : details ? "" : "no";
        case kChanged: {
            if (mode == Mode::Json) return std::to_string(static_cast<long long>(s.changed));
            char text[32];
            std::strftime(text, sizeof text, details ? "%Y-%m-%d %H:%M:%S %Z" : "%Y-%m-%dT%H:%M:%S",
                          std::localtime(&s.changed));
            return text;
        }
        case kAge: return mode == Mode::Json ? std::to_string(age(s)) : humanAge(age(s));
        default: return !row.removed || details ? "" : *row.removed ? "yes" : "no";
    }
}

std::vector<int> chosenColumns(const Arguments& arguments) {
    std::vector<int> chosen;
    std::string list = arguments.output.value_or("");
    const bool adding = !list.empty() && list[0] == '+';
    for (int column = 0; column < kRemoved; ++column) {
        if (arguments.outputAll || (list.empty() && arguments.json) ||
            ((list.empty() || adding) && kColumns[column].byDefault)) {
            chosen.push_back(column);
        }
    }
    if (adding) list.erase(0, 1);
    for (std::size_t at = 0; !list.empty() && at <= list.size();) {
        const std::size_t end = std::min(list.find(',', at), list.size());
        const std::string name = list.substr(at, end - at);
        const auto found =
            std::find_if(std::begin(kColumns), std::end(kColumns),
                         [&](const Column& c) { return !::strcasecmp(c.header, name.c_str()); });
        if (found == std::end(kColumns)) throw UsageError{"unknown column: " + escapedName(name)};
        const int column = static_cast<int>(found - kColumns);
        if (std::find(chosen.begin(), chosen.end(), column) == chosen.end())
            chosen.push_back(column);
        at = end + 1;
    }
    return chosen;
}

int jsonType(Kind kind) {
    return kind == Kind::String    ? SCOLS_JSON_STRING
           : kind == Kind::Boolean ? SCOLS_JSON_BOOLEAN_OPTIONAL
                                   : SCOLS_JSON_NUMBER;  // numbers and arrays go out as written
}

}  // namespace

std::string escapedName(const std::string& name) {
    std::string out;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < name.size();) {
        const unsigned char c = name[at];
        wchar_t wide = 0;
        std::size_t length = 1;
        bool printable = false;
        if (!(c == '\\' && at + 1 < name.size() && name[at + 1] == 'x') && !std::iscntrl(c)) {
            length = std::mbrtowc(&wide, &name[at], name.size() - at, &state);
            if (length == static_cast<std::size_t>(-1) || length == static_cast<std::size_t>(-2)) {
                state = std::mbstate_t{};
                length = 1;
                printable = std::isprint(c);
            } else {
                length = std::max<std::size_t>(length, 1);
                printable = std::iswprint(static_cast<wint_t>(wide));
            }
        }
        if (printable)
            out.append(name, at, length);
        else
            for (std::size_t i = 0; i < length; ++i)
                appendHex(out, static_cast<unsigned char>(name[at + i]), "\\x%02x");
        at += length;
    }
    return out;
}

std::string humanSize(unsigned long long bytes) {
    int exponent = 0;
    while (exponent < 60 && bytes >= 1ULL << (exponent + 10)) exponent += 10;
    unsigned long long whole = bytes >> exponent;
    unsigned long long tenths = 0;
    if (exponent > 0) {
        // Rounded to one decimal, half up; a rounding to 10 tenths carries into the whole.
        const unsigned long long rest = bytes & ((1ULL << exponent) - 1);
        const unsigned long long thousandths = rest >= ~0ULL / 1000
                                                   ? (rest / 1024 * 1000) >> (exponent - 10)
                                                   : rest * 1000 >> exponent;
        tenths = (thousandths + 50) / 100;
        if (tenths == 10) ++whole, tenths = 0;
    }
    const char unit = "BKMGTPE"[exponent / 10];
    static const std::string point =
        *std::localeconv()->decimal_point ? std::localeconv()->decimal_point : ".";
    char text[40];
    if (tenths > 0)
        std::snprintf(text, sizeof text, "%llu%s%llu%c", whole, point.c_str(), tenths, unit);
    else
        std::snprintf(text, sizeof text, "%llu%c", whole, unit);
    return text;
}

Row makeRow(Segment segment, const Usage& usage) {
    std::string judged = state(segment, usage);
    std::vector<pid_t> found = users(segment, usage);
    return Row{std::move(segment), std::move(judged), std::move(found), std::nullopt, &usage};
}

std::string label(const Segment& segment) {
    if (segment.sysv) return hexKey(segment.key) + " (id " + std::to_string(segment.id) + ")";
    std::string text = "/";  // not "/" + escapedName(...): GCC 12 warns of an overlap there
    return text.append(escapedName(segment.name));
}

void checkColumns(const Arguments& arguments) { chosenColumns(arguments); }

void printTable(const std::vector<Row>& rows, const Arguments& arguments) {
    std::vector<int> columns = chosenColumns(arguments);
    if (std::any_of(rows.begin(), rows.end(), [](const Row& row) { return row.removed; }))
        columns.push_back(kRemoved);
    const Mode mode = arguments.json ? Mode::Json : Mode::Table;
    const std::unique_ptr<libscols_table, void (*)(libscols_table*)> table(scols_new_table(),
                                                                           scols_unref_table);
    if (!table) throw std::bad_alloc();
    scols_table_enable_json(table.get(), arguments.json);
    scols_table_set_name(table.get(), "segments");
    scols_table_enable_raw(table.get(), arguments.raw);
    scols_table_enable_noheadings(table.get(), arguments.noHeadings);
    for (const int column : columns) {
        const Column& c = kColumns[column];
        libscols_column* added = scols_table_new_column(
            table.get(), arguments.json ? c.key : c.header, 0, arguments.json ? 0 : c.flags);
        if (added == nullptr) throw std::bad_alloc();
        scols_column_set_json_type(added, jsonType(c.kind));
    }
    for (const Row& row : rows) {
        libscols_line* line = scols_table_new_line(table.get(), nullptr);
        if (line == nullptr) throw std::bad_alloc();
        for (std::size_t at = 0; at < columns.size(); ++at) {
            std::string text = value(columns[at], row, mode, arguments.bytes);
            if (mode == Mode::Json && kColumns[columns[at]].kind == Kind::String)
                text = jsonSafe(text);
            if (scols_line_set_data(line, at, text.c_str()) != 0) throw std::bad_alloc();
        }
    }
    scols_print_table(table.get());
}

void printDetails(const std::vector<Row>& rows) {
    for (std::size_t at = 0; at < rows.size(); ++at) {
        if (at > 0) std::printf("\n");
        for (int column = 0; column < kColumnCount; ++column) {
            std::string text = value(column, rows[at], Mode::Details, true);
            if (text.empty()) continue;
            std::string label = column == kUsersCommand ? "process" : kColumns[column].key;
            std::replace(label.begin(), label.end(), '_', ' ');
            // One line per user process, each escaped already; everything else is one line.
            if (column != kUsersCommand) text = escapedName(text);
            for (std::size_t from = 0; from <= text.size();) {
                const std::size_t end = std::min(text.find('\n', from), text.size());
                std::printf("%s: %.*s\n", label.c_str(), static_cast<int>(end - from),
                            text.c_str() + from);
                from = end + 1;
            }
        }
    }
}

}  // namespace spfshm
