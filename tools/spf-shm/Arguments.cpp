// Strict parsing: every option belongs to the commands listed for it, anything else is a usage
// error, and "--" ends the options so that a name may begin with "-".
#include "Arguments.hpp"

#include <pwd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace spfshm {

const char kUsage[] =
    "usage: spf-shm COMMAND [OPTIONS] [--] [ARGUMENTS]\n"
    "Try 'spf-shm --help' for more information.\n";

const char kHelp[] =
    "usage: spf-shm COMMAND [OPTIONS] [--] [ARGUMENTS]\n"
    "\n"
    "Looking (opens, sizes and removes nothing):\n"
    "  list [--orphans] [--sysv|--posix] [--bytes] [--json]   every segment and its state\n"
    "  orphans [--sysv|--posix] [--bytes] [--json]            segments nothing uses any more\n"
    "  show [--sysv] [--derive [--trustee GROUP]] [--json] NAME\n"
    "  show (--key KEY | --id ID) [--json]                    all about one segment\n"
    "  name [--sysv] NAME [TRUSTEE]     the name (--sysv: key) the library derives\n"
    "\n"
    "Changing:\n"
    "  create|find|create-or-find [--sysv] [--trustee GROUP] [--derive] [--persistent]\n"
    "                             [--hold SECONDS] NAME SIZE\n"
    "      open the segment through the library; SIGINT/SIGTERM end --hold and clean up\n"
    "  remove [--sysv] [--derive [--trustee GROUP]] NAME\n"
    "  remove (--key KEY | --id ID)     remove one segment, in use or not\n"
    "  prune [--sysv|--posix] [--owner USER] [--name NAME] [--key KEY]\n"
    "        [--older-than DURATION] [--yes] [--bytes] [--json]\n"
    "      list the matching orphans; with --yes, remove them\n"
    "  --sees-all (list, orphans, show, prune): this PID namespace sees every process\n"
    "      that uses /dev/shm, so a POSIX object no process here uses is an orphan\n"
    "\n"
    "NAME: a POSIX object name (a leading \"/\" optional) or, with --sysv, the name given\n"
    "to the library. KEY: 0x and up to 8 hex digits, or decimal. DURATION: e.g. 90s, 1h30m, 7d.\n"
    "Exit status: 0 success, 1 not found or failed, 2 bad usage. See spf-shm(1).\n";

namespace {

// clang-format off
enum Command : unsigned {
    kName = 1, kOpen = 2, kShow = 4, kList = 8, kPrune = 16, kRemove = 32, kAll = 63
};
// clang-format on

struct Option {
    const char* name;
    bool takesValue;
    unsigned commands;
};

const Option kOptions[] = {
    {"sysv", false, kName | kOpen | kShow | kList | kPrune | kRemove},
    {"posix", false, kList | kPrune},
    {"trustee", true, kName | kOpen | kShow | kRemove},
    {"derive", false, kOpen | kShow | kRemove},
    {"persistent", false, kOpen},
    {"hold", true, kOpen},
    {"key", true, kShow | kRemove | kPrune},
    {"id", true, kShow | kRemove},
    {"orphans", false, kList},
    {"owner", true, kPrune},
    {"name", true, kPrune},
    {"older-than", true, kPrune},
    {"yes", false, kPrune},
    {"bytes", false, kList | kPrune},
    {"json", false, kShow | kList | kPrune},
    {"sees-all", false, kShow | kList | kPrune},
    {"help", false, kAll},
    {"version", false, kAll},
};

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
        throw UsageError{"bad " + what + ": " + text};
    return value;
}

std::int32_t parseKey(const std::string& text) {
    const bool hex = text.size() > 2 && text.size() <= 10 &&
                     (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) &&
                     text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
    // Keys are 32-bit patterns: decimal as /proc/sysvipc/shm prints them, or hexadecimal as ipcs
    // does.
    if (hex) return static_cast<std::int32_t>(std::strtoul(text.c_str() + 2, nullptr, 16));
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || (text[0] != '-' && !std::isdigit(static_cast<unsigned char>(text[0]))) ||
        *end != '\0' || errno != 0 || value < INT_MIN || value > INT_MAX) {
        throw UsageError{"bad --key: " + text};
    }
    return static_cast<std::int32_t>(value);
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
        if (count.empty() || which == nullptr) throw UsageError{"bad --older-than: " + text};
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

// clang-format off
void setOption(Arguments& arguments, const std::string& name, const std::string& value) {
    if (name == "sysv") arguments.sysv = true;
    else if (name == "posix") arguments.posix = true;
    else if (name == "trustee") arguments.trustee = value;
    else if (name == "derive") arguments.derive = true;
    else if (name == "persistent") arguments.persistent = true;
    else if (name == "hold") arguments.hold = number(value, 1UL << 31, "--hold seconds");
    else if (name == "key") arguments.key = parseKey(value);
    else if (name == "id") arguments.id = static_cast<int>(number(value, INT_MAX, "--id"));
    else if (name == "orphans") arguments.orphans = true;
    else if (name == "owner") arguments.owner = parseOwner(value);
    else if (name == "name") arguments.name = value;
    else if (name == "older-than") arguments.olderThan = parseDuration(value);
    else if (name == "yes") arguments.yes = true;
    else if (name == "bytes") arguments.bytes = true;
    else if (name == "json") arguments.json = true;
    else if (name == "sees-all") arguments.seesAll = true;
    else if (name == "help") arguments.help = true;
    else if (name == "version") arguments.version = true;
}
// clang-format on

void checkOperands(const Arguments& arguments, std::size_t least, std::size_t most) {
    const std::size_t count = arguments.operands.size();
    if (count < least) throw UsageError{arguments.command + ": missing argument"};
    if (count > most)
        throw UsageError{arguments.command + ": unexpected argument: " + arguments.operands[most]};
}

void check(Arguments& arguments, unsigned command) {
    if (arguments.sysv && arguments.posix)
        throw UsageError{"--sysv and --posix exclude each other"};
    if (command == kName) {
        checkOperands(arguments, 1, arguments.trustee ? 1 : 2);
    } else if (command == kOpen) {
        checkOperands(arguments, 2, 2);
        if (number(arguments.operands[1], ULONG_MAX, "SIZE") == 0)
            throw UsageError{"bad SIZE: " + arguments.operands[1]};
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
}

}  // namespace

std::string objectName(const std::string& text, bool posix) {
    const std::string name = !text.empty() && text[0] == '/' ? text.substr(1) : text;
    if (name.empty()) throw UsageError{"an empty segment name"};
    if (posix &&
        (name == "." || name == ".." || name.find('/') != std::string::npos || name.size() > 255))
        throw UsageError{"not a POSIX object name: " + text};
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
    Arguments arguments;
    if (argc < 2) throw UsageError{"no command given"};
    int first = 1;
    unsigned command = kAll;
    if (argv[1][0] != '-') {
        arguments.command = argv[1];
        command = commandBit(arguments.command);
        if (command == 0) throw UsageError{"unknown command: " + arguments.command};
        if (arguments.command == "orphans") arguments.orphans = true;
        first = 2;
    }
    bool options = true;
    for (int i = first; i < argc; ++i) {
        const std::string argument = argv[i];
        if (!options || argument.size() < 2 || argument[0] != '-') {
            arguments.operands.push_back(argument);
            continue;
        }
        if (argument == "--") {
            options = false;
            continue;
        }
        if (argument == "-h") {
            arguments.help = true;
            continue;
        }
        const std::size_t equals = argument.find('=');
        const std::string name =
            argument.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
        const Option* option = nullptr;
        for (const Option& candidate : kOptions) {
            if (argument.compare(0, 2, "--") == 0 && name == candidate.name) option = &candidate;
        }
        if (option == nullptr || (option->commands & command) == 0) {
            throw UsageError{"unknown option" +
                             (arguments.command.empty() ? "" : " for " + arguments.command) + ": " +
                             argument};
        }
        std::string value;
        if (equals != std::string::npos) {
            if (!option->takesValue) throw UsageError{"--" + name + " takes no value"};
            value = argument.substr(equals + 1);
        } else if (option->takesValue) {
            if (i + 1 >= argc) throw UsageError{"--" + name + " needs a value"};
            value = argv[++i];
        }
        setOption(arguments, name, value);
    }
    if (arguments.help || arguments.version) return arguments;
    if (arguments.command.empty()) throw UsageError{"no command given"};
    check(arguments, command);
    return arguments;
}

}  // namespace spfshm
