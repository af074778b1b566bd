// Every way of printing a segment starts from one list of facts, so that the detailed view
// and the JSON keys cannot drift apart.
#include "Output.hpp"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstdio>
#include <map>

namespace spfshm {

namespace {

struct Fact {
    const char* key;   // JSON key; the detailed view turns "_" into " "
    std::string json;  // the value as JSON
    std::string text;  // the value for people; empty: not shown
};

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// The object's name as people read it; control characters would break the table's lines.
std::string printableName(const std::string& name) {
    std::string text = "/" + name;
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return text;
}

}  // namespace

std::string escapedName(const std::string& name) { return printableName(name).substr(1); }

namespace {

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

std::string humanSize(unsigned long long bytes) {
    const char* units = "BKMGTPE";
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 6) value /= 1024, ++unit;
    char text[16];
    if (unit == 0)
        std::snprintf(text, sizeof text, "%llu", bytes);
    else
        std::snprintf(text, sizeof text, value < 10 ? "%.1f%c" : "%.0f%c", value, units[unit]);
    return text;
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

std::string orNull(bool present, const std::string& json) { return present ? json : "null"; }

std::vector<Fact> facts(const Row& row) {
    const Segment& s = row.segment;
    const bool v = s.sysv;
    const bool trusted = (s.mode & 070) == 070;  // the library's rule for a trustee
    std::string pids = "[", pidText;
    for (const pid_t pid : row.users) {
        if (!pidText.empty()) {
            pids += ',';
            pidText += ' ';
        }
        pids += std::to_string(pid);
        pidText += std::to_string(pid);
    }
    char changed[32];
    std::strftime(changed, sizeof changed, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&s.changed));
    const auto number = [](auto value) { return std::to_string(value); };
    std::vector<Fact> list = {
        {"backend", quoted(v ? "sysv" : "posix"), v ? "System V" : "POSIX"},
        {"name", orNull(!v, quoted("/" + s.name)), v ? "" : printableName(s.name)},
        {"key", orNull(v, quoted(hexKey(s.key))), v ? hexKey(s.key) : ""},
        {"id", orNull(v, number(s.id)), v ? number(s.id) : ""},
        {"owner", quoted(userName(s.uid)), userName(s.uid)},
        {"uid", number(s.uid), ""},
        {"group", quoted(groupName(s.gid)), groupName(s.gid)},
        {"gid", number(s.gid), ""},
        {"trustee", orNull(trusted, quoted(groupName(s.gid))),
         trusted ? groupName(s.gid) : "(none)"},
        {"creator_uid", orNull(v, number(s.creatorUid)),
         v ? number(s.creatorUid) + " (" + userName(s.creatorUid) + ")" : ""},
        {"creator_gid", orNull(v, number(s.creatorGid)),
         v ? number(s.creatorGid) + " (" + groupName(s.creatorGid) + ")" : ""},
        {"mode", quoted(octal(s.mode)), octal(s.mode)},
        {"size", number(s.size), number(s.size)},
        {"attached", orNull(v, number(s.attached)), v ? number(s.attached) : ""},
        {"creator_pid", orNull(v, number(s.creatorPid)), v ? number(s.creatorPid) : ""},
        {"last_pid", orNull(v, number(s.lastPid)), v ? number(s.lastPid) : ""},
        {"users", pids + "]", pidText.empty() ? "(none found)" : pidText},
        {"state", quoted(row.state), row.state},
        {"marked_for_removal", s.markedForRemoval ? "true" : "false",
         v && s.markedForRemoval ? "yes" : ""},
        {"changed", number(static_cast<long long>(s.changed)), changed},
        {"age", number(age(s)), humanAge(age(s))},
    };
    if (row.removed) list.push_back({"removed", *row.removed ? "true" : "false", ""});
    return list;
}

}  // namespace

Row makeRow(const Segment& segment, const Usage& usage) {
    return Row{segment, state(segment, usage), users(segment, usage), std::nullopt};
}

std::string label(const Segment& segment) {
    return segment.sysv ? hexKey(segment.key) + " (id " + std::to_string(segment.id) + ")"
                        : "/" + segment.name;
}

void printTable(const std::vector<Row>& rows, bool exactSizes) {
    std::vector<std::vector<std::string>> cells = {
        {"TYPE", "NAME", "ID", "OWNER", "GROUP", "MODE", "SIZE", "USERS", "STATE", "AGE"}};
    for (const Row& row : rows) {
        const Segment& s = row.segment;
        cells.push_back(
            {s.sysv ? "sysv" : "posix", s.sysv ? hexKey(s.key) : printableName(s.name),
             s.sysv ? std::to_string(s.id) : "-", userName(s.uid), groupName(s.gid), octal(s.mode),
             exactSizes ? std::to_string(s.size) : humanSize(s.size),
             std::to_string(s.sysv ? s.attached : row.users.size()), row.state, humanAge(age(s))});
    }
    std::vector<std::size_t> width(cells[0].size(), 0);
    for (const auto& line : cells)
        for (std::size_t column = 0; column < line.size(); ++column)
            width[column] = std::max(width[column], line[column].size());
    const bool rightAligned[] = {false, false, true, false, false, false, true, true, false, true};
    for (const auto& line : cells) {
        std::string out;
        for (std::size_t column = 0; column < line.size(); ++column) {
            const std::string pad(width[column] - line[column].size(), ' ');
            out += rightAligned[column] ? pad + line[column] : line[column] + pad;
            out += column + 1 < line.size() ? "  " : "";
        }
        out.erase(out.find_last_not_of(' ') + 1);
        std::printf("%s\n", out.c_str());
    }
}

void printDetails(const std::vector<Row>& rows) {
    for (std::size_t at = 0; at < rows.size(); ++at) {
        if (at > 0) std::printf("\n");
        for (const Fact& fact : facts(rows[at])) {
            if (fact.text.empty()) continue;
            std::string label = fact.key;
            std::replace(label.begin(), label.end(), '_', ' ');
            std::printf("%s: %s\n", label.c_str(), fact.text.c_str());
        }
    }
}

void printJson(const std::vector<Row>& rows) {
    std::printf("[");
    for (std::size_t at = 0; at < rows.size(); ++at) {
        std::printf(at == 0 ? "\n  {" : ",\n  {");
        const std::vector<Fact> list = facts(rows[at]);
        for (std::size_t f = 0; f < list.size(); ++f)
            std::printf("%s\"%s\": %s", f == 0 ? "" : ", ", list[f].key, list[f].json.c_str());
        std::printf("}");
    }
    std::printf(rows.empty() ? "]\n" : "\n]\n");
}

}  // namespace spfshm
