// Strict parsing with getopt_long(3), as util-linux parses: short and long forms, --opt=value,
// options before or after the command, and "--" to end the options so that a name may begin
// with "-". Every option belongs to the commands listed for it; anything else is a usage error.
#include "Arguments.hpp"

#include <getopt.h>
#include <pwd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "Output.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace spfshm {

const char kUsage[] =
    "usage: spf-shm COMMAND [OPTIONS] [--] [ARGUMENTS]\n"
    "Try 'spf-shm --help' for more information.\n";

const char kHelp[] =
    "usage: spf-shm COMMAND [OPTIONS] [--] [ARGUMENTS]\n"
    "\n"
    "Looking (opens, sizes and removes nothing):\n"
    "  list [--orphans] [--check] [FILTERS] [OUTPUT]  every segment and its state\n"
    "  orphans [--check] [FILTERS] [OUTPUT]           segments nothing uses any more\n"
    "  show [-S] [-d [-t GROUP]] [-J] (NAME | --name-hex HEX)\n"
    "  show (-k KEY | -i ID) [-J]                     all about one segment\n"
    "  name [-S] NAME [TRUSTEE]         the name (-S: key) the library derives\n"
    "\n"
    "Changing:\n"
    "  create|find|create-or-find [-S] [-t GROUP] [-d] [-p] [--reserve] [--hold SECONDS]\n"
    "      NAME SIZE  open the segment through the library (--reserve: back every byte now);\n"
    "      SIGINT/SIGTERM end --hold and clean up\n"
    "  remove [-S] [-d [-t GROUP]] (NAME | --name-hex HEX)\n"
    "  remove (-k KEY | -i ID [-i ID]...)  remove segments, in use or not\n"
    "  prune [FILTERS] [-y] [OUTPUT]    list the matching orphans; with -y, remove them\n"
    "  --sees-all (list, orphans, show, prune): this PID namespace sees every process\n"
    "      that uses /dev/shm, so a POSIX object no process here uses is an orphan\n"
    "\n"
    "FILTERS: -S/--sysv | -P/--posix, -u/--owner USER, --name PATTERN, -k/--key KEY,\n"
    "         --older-than DURATION\n"
    "OUTPUT:  -o/--output COLUMNS (+COLUMNS adds), --output-all, -n/--noheadings, -r/--raw,\n"
    "         -J/--json, -b/--bytes\n"
    "Columns: TYPE NAME NAME_HEX KEY ID OWNER UID GROUP GID TRUSTEE CUID CGID MODE SIZE ALLOC\n"
    "         NATTCH CPID LPID COMMAND USERS USERS_USER USERS_COMMAND STATE REMOVING CHANGED AGE\n"
    "NAME: a POSIX object name (a leading \"/\" optional) or, with -S, the name given to the\n"
    "library; HEX: its bytes in hexadecimal. KEY: 0x and up to 8 hex digits, or decimal.\n"
    "DURATION: e.g. 90s, 1h30m, 7d. Other options: -t/--trustee, -d/--derive, -p/--persistent,\n"
    "-y/--yes, --sees-all, -h/--help, -V/--version.\n"
    "Exit status: 0 success, 1 not found or failed, 2 bad usage, 3 orphans found (--check).\n"
    "See spf-shm(1).\n";

namespace {

// clang-format off
enum Command : unsigned {
    kName = 1, kOpen = 2, kShow = 4, kList = 8, kPrune = 16, kRemove = 32, kAll = 63
};
enum LongOnly : int {
    kOrphans = 256, kNamePattern, kOlderThan, kHold, kOutputAll, kNameHex, kCheck, kSeesAll, kReserve
};
// clang-format on

struct Option {
    const char* name;
    int hasArgument;
    int id;  // the short form, or a LongOnly
    unsigned commands;
};

const Option kOptions[] = {
    {"sysv", no_argument, 'S', kName | kOpen | kShow | kList | kPrune | kRemove},
    {"posix", no_argument, 'P', kList | kPrune},
    {"trustee", required_argument, 't', kName | kOpen | kShow | kRemove},
    {"derive", no_argument, 'd', kOpen | kShow | kRemove},
    {"persistent", no_argument, 'p', kOpen},
    {"hold", required_argument, kHold, kOpen},
    {"reserve", no_argument, kReserve, kOpen},
    {"key", required_argument, 'k', kShow | kRemove | kList | kPrune},
    {"id", required_argument, 'i', kShow | kRemove},
    {"orphans", no_argument, kOrphans, kList},
    {"owner", required_argument, 'u', kList | kPrune},
    {"name", required_argument, kNamePattern, kList | kPrune},
    {"older-than", required_argument, kOlderThan, kList | kPrune},
    {"yes", no_argument, 'y', kPrune},
    {"output", required_argument, 'o', kList | kPrune},
    {"output-all", no_argument, kOutputAll, kList | kPrune},
    {"noheadings", no_argument, 'n', kList | kPrune},
    {"raw", no_argument, 'r', kList | kPrune},
    {"bytes", no_argument, 'b', kList | kPrune},
    {"json", no_argument, 'J', kShow | kList | kPrune},
    {"name-hex", required_argument, kNameHex, kShow | kRemove},
    {"check", no_argument, kCheck, kList},
    {"sees-all", no_argument, kSeesAll, kShow | kList | kPrune},
    {"help", no_argument, 'h', kAll},
    {"version", no_argument, 'V', kAll},
};

const Option& optionWithId(int id) {
    return *std::find_if(std::begin(kOptions), std::end(kOptions),
                         [id](const Option& option) { return option.id == id; });
}

unsigned commandBit(const std::string& command) {
    if (command == "name") return kName;
    if (command == "create" || command == "find" || command == "create-or-find") return kOpen;
    if (command == "show") return kShow;
    if (command == "list" || command == "orphans") return kList;
    if (command == "prune") return kPrune;
    if (command == "remove") return kRemove;
    return 0;
}

bool allDigits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

unsigned long long number(const std::string& text, unsigned long long most,
                          const std::string& what) {
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (!allDigits(text) || errno != 0 || value > most)
        throw UsageError{"bad " + what + ": " + escapedName(text)};
    return value;
}

std::int32_t parseKey(const std::string& text) {
    const bool hex = text.size() > 2 && text.size() <= 10 &&
                     (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) &&
                     text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
    // Keys are 32-bit patterns: decimal as /proc/sysvipc/shm prints them (signed) or as ipcmk
    // and ftok users write them (unsigned), or hexadecimal as ipcs does.
    if (hex) return static_cast<std::int32_t>(std::strtoul(text.c_str() + 2, nullptr, 16));
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || (text[0] != '-' && !std::isdigit(static_cast<unsigned char>(text[0]))) ||
        *end != '\0' || errno != 0 || value < INT_MIN || value > UINT_MAX) {
        throw UsageError{"bad --key: " + escapedName(text)};
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

long long parseDuration(const std::string& text) {
    long long total = 0;
    std::size_t at = 0;
    do {
        const std::size_t digits = text.find_first_not_of("0123456789", at);
        const std::string count = text.substr(at, digits - at);
        const char unit = digits == std::string::npos ? 's' : text[digits];
        const char* units = "smhdw";
        const long long scale[] = {1, 60, 3600, 86400, 604800};
        const char* which = unit != '\0' ? std::strchr(units, unit) : nullptr;
        if (count.empty() || which == nullptr)
            throw UsageError{"bad --older-than: " + escapedName(text)};
        total += static_cast<long long>(number(count, 1ULL << 40, "--older-than")) *
                 scale[which - units];
        at = digits == std::string::npos ? text.size() : digits + 1;
    } while (at < text.size());
    return total;
}

uid_t parseOwner(const std::string& text) {
    if (const passwd* entry = ::getpwnam(text.c_str())) return entry->pw_uid;
    return static_cast<uid_t>(number(text, UINT_MAX - 1, "--owner (no such user)"));
}

// The bytes that --name-hex spells, two hexadecimal digits each.
std::string parseHex(const std::string& text) {
    std::string bytes;
    if (text.size() % 2 == 0 &&
        text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
        for (std::size_t at = 0; at < text.size(); at += 2)
            bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    }
    if (bytes.empty() || bytes.find('\0') != std::string::npos)
        throw UsageError{"bad --name-hex: " + escapedName(text)};
    return bytes;
}

// clang-format off
void setOption(Arguments& arguments, int id, const std::string& value) {
    switch (id) {
        case 'S': arguments.sysv = true; break;
        case 'P': arguments.posix = true; break;
        case 't': arguments.trustee = value; break;
        case 'd': arguments.derive = true; break;
        case 'p': arguments.persistent = true; break;
        case kHold: arguments.hold = number(value, 1UL << 31, "--hold seconds"); break;
        case 'k': arguments.key = parseKey(value); break;
        case 'i':
            arguments.ids.push_back(static_cast<int>(number(value, INT_MAX, "--id")));
            arguments.id = arguments.ids.front();
            break;
        case kOrphans: arguments.orphans = true; break;
        case 'u': arguments.owner = parseOwner(value); break;
        case kNamePattern: arguments.name = value; break;
        case kOlderThan: arguments.olderThan = parseDuration(value); break;
        case 'y': arguments.yes = true; break;
        case 'o': arguments.output = value; break;
        case kOutputAll: arguments.outputAll = true; break;
        case 'n': arguments.noHeadings = true; break;
        case 'r': arguments.raw = true; break;
        case 'b': arguments.bytes = true; break;
        case 'J': arguments.json = true; break;
        case kNameHex: arguments.operands.push_back(parseHex(value)); break;
        case kCheck: arguments.check = true; break;
        case kSeesAll: arguments.seesAll = true; break;
        case kReserve: arguments.reserve = true; break;
        case 'h': arguments.help = true; break;
        case 'V': arguments.version = true; break;
    }
}
// clang-format on

void checkOperands(const Arguments& arguments, std::size_t least, std::size_t most) {
    const std::size_t count = arguments.operands.size();
    if (count < least) throw UsageError{arguments.command + ": missing argument"};
    if (count > most)
        throw UsageError{arguments.command +
                         ": unexpected argument: " + escapedName(arguments.operands[most])};
}

void check(Arguments& arguments, unsigned command) {
    if (arguments.sysv && arguments.posix)
        throw UsageError{"--sysv and --posix exclude each other"};
    if (arguments.output && arguments.outputAll)
        throw UsageError{"--output and --output-all exclude each other"};
    if (arguments.json && (arguments.raw || arguments.noHeadings))
        throw UsageError{"--json excludes --raw and --noheadings"};
    if (command == kName) {
        checkOperands(arguments, 1, arguments.trustee ? 1 : 2);
        objectName(arguments.operands[0], false);  // an empty name derives nothing
    } else if (command == kOpen) {
        checkOperands(arguments, 2, 2);
        if (number(arguments.operands[1], ULONG_MAX, "SIZE") == 0)
            throw UsageError{"bad SIZE: " + escapedName(arguments.operands[1])};
    } else if (command == kShow || command == kRemove) {
        if (arguments.trustee && !arguments.derive)
            throw UsageError{"--trustee with " + arguments.command +
                             " names a derived segment; add --derive"};
        if (arguments.key || arguments.id) {
            if ((arguments.key && arguments.id) || arguments.derive)
                throw UsageError{"--key, --id and --derive exclude each other"};
            arguments.sysv = true;
            checkOperands(arguments, 0, 0);
        } else {
            checkOperands(arguments, 1, 1);
        }
    } else {
        checkOperands(arguments, 0, 0);
    }
    if (command == kOpen ||
        ((command == kShow || command == kRemove) && !arguments.operands.empty())) {
        segmentName(arguments);  // rejects bad names before anything is done
    }
    if (command == kList || command == kPrune) checkColumns(arguments);
}

// The option that getopt_long refused, as the command line spelled it.
std::string refusedOption(char** argv) {
    const char* word = argv[optind - 1];
    if (optopt == 0 || optopt >= 256 || std::strncmp(word, "--", 2) == 0) return word;
    return std::string("-") + static_cast<char>(optopt);
}

}  // namespace

std::string objectName(const std::string& text, bool posix) {
    const std::string name = !text.empty() && text[0] == '/' ? text.substr(1) : text;
    if (name.empty()) throw UsageError{"an empty segment name"};
    if (posix &&
        (name == "." || name == ".." || name.find('/') != std::string::npos || name.size() > 255))
        throw UsageError{"not a POSIX object name: " + escapedName(text)};
    return name;
}

std::string segmentName(const Arguments& arguments) {
    const std::string& name = arguments.operands.at(0);
    if (arguments.derive) {
        return agent::spf::sharedmemory::deriveSegmentName(name, arguments.trustee.value_or(""));
    }
    return objectName(name, !arguments.sysv);
}

Arguments parseArguments(int argc, char** argv) {
    std::string shortOptions = ":";  // a missing value is told apart from an unknown option
    std::vector<option> longOptions;
    for (const Option& o : kOptions) {
        longOptions.push_back({o.name, o.hasArgument, nullptr, o.id});
        if (o.id < 256)
            shortOptions += std::string(1, static_cast<char>(o.id)) + (o.hasArgument ? ":" : "");
    }
    longOptions.push_back({nullptr, 0, nullptr, 0});
    Arguments arguments;
    std::vector<int> seen;
    ::opterr = 0;
    ::optind = 0;  // a full restart of getopt's scan
    int id;
    while ((id = ::getopt_long(argc, argv, shortOptions.c_str(), longOptions.data(), nullptr)) !=
           -1) {
        if (id == '?') {
            const bool known =
                ::optopt != 0 && std::any_of(std::begin(kOptions), std::end(kOptions),
                                             [](const Option& o) { return o.id == ::optopt; });
            throw UsageError{known ? std::string("--") + optionWithId(::optopt).name +
                                         " takes no value"
                                   : "unknown option: " + escapedName(refusedOption(argv))};
        }
        if (id == ':')
            throw UsageError{std::string("--") + optionWithId(::optopt).name + " needs a value"};
        // A second value would silently replace the first, or add to a filter the operator
        // did not mean; either way it is refused.
        // remove takes several ids, as ipcrm does; the command is checked below.
        if (optionWithId(id).hasArgument && id != 'i' &&
            std::count(seen.begin(), seen.end(), id) > 0)
            throw UsageError{std::string("--") + optionWithId(id).name + " given twice"};
        seen.push_back(id);
        setOption(arguments, id, ::optarg != nullptr ? ::optarg : "");
    }
    // --name-hex put its name first; the command and any NAME follow it.
    const bool named = std::count(seen.begin(), seen.end(), kNameHex) > 0;
    std::vector<std::string> words(argv + ::optind, argv + argc);
    if (arguments.help || arguments.version) return arguments;
    if (words.empty()) throw UsageError{"no command given"};
    arguments.command = words.front();
    const unsigned command = commandBit(arguments.command);
    if (command == 0) throw UsageError{"unknown command: " + escapedName(arguments.command)};
    if (arguments.command == "orphans") arguments.orphans = true;
    for (const int used : seen) {
        if ((optionWithId(used).commands & command) == 0)
            throw UsageError{"unknown option for " + arguments.command + ": --" +
                             optionWithId(used).name};
    }
    if (arguments.ids.size() > 1 && command != kRemove) throw UsageError{"--id given twice"};
    if (named && words.size() > 1) throw UsageError{"--name-hex and NAME exclude each other"};
    arguments.operands.insert(arguments.operands.end(), words.begin() + 1, words.end());
    check(arguments, command);
    return arguments;
}

}  // namespace spfshm
