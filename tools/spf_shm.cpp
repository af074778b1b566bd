// spf-shm: inspect and manage the library's shared-memory segments from the command line.
// Everything that opens a segment goes through the public SharedMemory handle, so the tool
// sees segments exactly as an application does; the listing reads /dev/shm and the kernel's
// System V table directly, since those hold segments the tool has no name for. The library's
// records go to stderr: teardown failures (a removal that did not happen) are only logged.
#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/core/null_deleter.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/make_shared.hpp>
#include <iostream>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;

namespace {

const char kUsage[] =
    "usage: spf-shm COMMAND [OPTIONS] ARGUMENTS\n"
    "\n"
    "commands:\n"
    "  name NAME [TRUSTEE]\n"
    "      print the segment name that SharedMemory::create, find and createOrFind derive\n"
    "      from NAME and TRUSTEE (an empty TRUSTEE means the current effective user)\n"
    "  create         [OPTIONS] NAME SIZE   create the segment; fails if it exists\n"
    "  find           [OPTIONS] NAME SIZE   open the existing segment\n"
    "  create-or-find [OPTIONS] NAME SIZE   create the segment, or open it if it exists\n"
    "      --sysv            a System V segment (default: a POSIX object)\n"
    "      --trustee GROUP   grant GROUP access when creating; when finding, open the segment\n"
    "                        only if it trusts GROUP\n"
    "      --derive          open the derived name (see `name`) instead of NAME itself\n"
    "      --persistent      leave a segment this command created in the system afterwards\n"
    "      --hold SECONDS    keep the segment open that long before letting it go\n"
    "                        (SIGINT/SIGTERM end the wait early and still clean up)\n"
    "  show [--sysv] [--derive [--trustee GROUP]] NAME [SIZE]\n"
    "      owner, trustee, mode and size of an existing segment\n"
    "  list\n"
    "      every POSIX object in /dev/shm and every System V segment, with owner, group,\n"
    "      mode and size\n"
    "  remove [--sysv] [--derive [--trustee GROUP]] NAME\n"
    "      remove a (persistent) segment from the system\n"
    "\n"
    "NAME is the segment name without the leading \"/\" (POSIX: the object /dev/shm/NAME).\n"
    "Exit status: 0 on success, 1 on failure (the reason on stderr), 2 on bad usage.\n";

struct UsageError {
    std::string text;
};

struct Failure {
    std::string text;
};

struct Options {
    std::string command;
    std::vector<std::string> arguments;
    SharedMemory::ImplementationSpecifications spec = SharedMemory::Posix;
    std::string trustee;
    bool derive = false;
    bool persistent = false;
    unsigned long hold = 0;
};

unsigned long parseNumber(const std::string& text, const char* what, bool allowZero) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end != '\0' ||
        errno != 0 || (value == 0 && !allowZero)) {
        throw UsageError{std::string("bad ") + what + ": " + text};
    }
    return value;
}

Options parse(int argc, char** argv) {
    Options options;
    if (argc < 2) throw UsageError{"no command given"};
    options.command = argv[1];
    if (options.command == "--help" || options.command == "-h") throw UsageError{};
    const std::string& command = options.command;
    const bool opens = command == "create" || command == "find" || command == "create-or-find";
    const bool names = opens || command == "show" || command == "remove";
    for (int i = 2; i < argc; ++i) {
        const std::string argument = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw UsageError{argument + " needs a value"};
            return argv[++i];
        };
        if (argument == "--help" || argument == "-h") {
            throw UsageError{};
        } else if (argument.size() < 2 || argument.compare(0, 2, "--") != 0 || command == "name") {
            options.arguments.push_back(argument);
        } else if (names && argument == "--sysv") {
            options.spec = SharedMemory::SysV;
        } else if (names && argument == "--derive") {
            options.derive = true;
        } else if (names && argument == "--trustee") {
            options.trustee = value();
        } else if (opens && argument == "--persistent") {
            options.persistent = true;
        } else if (opens && argument == "--hold") {
            options.hold = parseNumber(value(), "--hold seconds", true);
        } else {
            throw UsageError{"unknown option for " + command + ": " + argument};
        }
    }
    if (!options.trustee.empty() && !options.derive && (command == "show" || command == "remove")) {
        throw UsageError{"--trustee with " + command + " only names a derived segment; add --derive"};
    }
    std::size_t least = 0, most = 0;
    if (command == "name") least = 1, most = 2;
    else if (opens) least = most = 2;
    else if (command == "show") least = 1, most = 2;
    else if (command == "remove") least = most = 1;
    else if (command == "list") least = most = 0;
    else throw UsageError{"unknown command: " + command};
    if (options.arguments.size() < least || options.arguments.size() > most) {
        throw UsageError{"wrong number of arguments for " + command};
    }
    return options;
}

std::string segmentName(const Options& options) {
    const std::string& name = options.arguments.at(0);
    return options.derive ? sm::deriveSegmentName(name, options.trustee) : name;
}

const char* backEnd(const Options& options) {
    return options.spec == SharedMemory::SysV ? "System V" : "POSIX";
}

std::string userName(uid_t uid) {
    const passwd* entry = ::getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

std::string groupName(gid_t gid) {
    const group* entry = ::getgrgid(gid);
    return entry != nullptr ? entry->gr_name : std::to_string(gid);
}

std::string orNone(const std::string& text) { return text.empty() ? "(none)" : text; }

std::string octal(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & 07777);
    return text;
}

// One row of /proc/sysvipc/shm.
struct SysVEntry {
    long long key = 0;
    int id = -1;
    unsigned mode = 0;
    unsigned long long size = 0;
    unsigned long attached = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

std::vector<SysVEntry> sysvTable() {
    std::vector<SysVEntry> entries;
    std::ifstream table("/proc/sysvipc/shm");
    std::string line;
    std::getline(table, line);  // header
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        SysVEntry entry;
        long long cpid, lpid;
        unsigned long uid, gid;
        fields >> entry.key >> entry.id >> std::oct >> entry.mode >> std::dec >> entry.size >>
            cpid >> lpid >> entry.attached >> uid >> gid;
        if (fields) {
            entry.uid = static_cast<uid_t>(uid);
            entry.gid = static_cast<gid_t>(gid);
            entries.push_back(entry);
        }
    }
    return entries;
}

// The System V identifier of the segment this process has mapped at `address`: the kernel
// shows it as the inode of the mapping.
int sysvIdMappedAt(const void* address) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        std::istringstream fields(line);
        std::string range, permissions, offset, device;
        unsigned long long inode = 0;
        fields >> range >> permissions >> offset >> device >> inode;
        if (std::strtoull(range.c_str(), nullptr, 16) == reinterpret_cast<std::uintptr_t>(address)) {
            return static_cast<int>(inode);
        }
    }
    return -1;
}

bool findSysV(int id, SysVEntry& out) {
    for (const SysVEntry& entry : sysvTable()) {
        if (entry.id == id) {
            out = entry;
            return true;
        }
    }
    return false;
}

bool statPosix(const std::string& name, struct stat& status) {
    return ::stat(("/dev/shm/" + name).c_str(), &status) == 0;
}

// Opens an existing segment for show and remove. A POSIX object is opened at the size it has,
// so that the library's size check passes; a System V find accepts any size up to the real one.
SharedMemory openExisting(const Options& options, const std::string& name) {
    unsigned long size = 1;
    if (options.arguments.size() > 1) {
        size = parseNumber(options.arguments[1], "SIZE", false);
    } else if (struct stat status; options.spec == SharedMemory::Posix && statPosix(name, status) &&
                                   status.st_size > 0) {
        size = static_cast<unsigned long>(status.st_size);
    }
    SharedMemory segment(name, size, false, std::string(), options.spec);
    if (!segment.isAttached()) {
        throw Failure{std::string("no ") + backEnd(options) + " segment /" + name};
    }
    return segment;
}

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

// Set before the segment is opened, so that a signal at any point still lets the teardown run.
void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

void hold(unsigned long seconds) {
    std::printf("holding for %lu s\n", seconds);
    std::fflush(stdout);
    timespec left{static_cast<time_t>(seconds), 0};
    while (!stopRequested && ::nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

int open(const Options& options) {
    const std::string name = segmentName(options);
    const unsigned long size = parseNumber(options.arguments[1], "SIZE", false);
    if (options.hold > 0) catchStopSignals();
    SharedMemory segment =
        options.command == "create-or-find"
            ? SharedMemory(name, size, options.trustee, options.spec)
            : SharedMemory(name, size, options.command == "create", options.trustee, options.spec);
    if (!segment.isAttached()) {
        if (options.command == "create") throw Failure{"the segment /" + name + " exists already"};
        throw Failure{"no segment /" + name +
                      (options.trustee.empty() ? "" : " that trusts group " + options.trustee)};
    }
    if (options.persistent) segment.makePersistent();
    std::printf("segment: /%s (%s)\nrole: %s\nowner: %s\ntrustee: %s\nsize: %lu\npersistent: %s\n",
                name.c_str(), backEnd(options), segment.isCreator() ? "creator" : "finder",
                orNone(segment.getOwner()).c_str(), orNone(segment.getTrustee()).c_str(), size,
                options.persistent || !segment.isCreator() ? "yes" : "no");
    if (options.hold > 0) hold(options.hold);
    return 0;
}

int show(const Options& options) {
    const std::string name = segmentName(options);
    SharedMemory segment = openExisting(options, name);
    unsigned mode = 0;
    unsigned long long size = 0;
    if (options.spec == SharedMemory::Posix) {
        struct stat status;
        if (!statPosix(name, status)) throw Failure{"cannot stat /dev/shm/" + name};
        mode = status.st_mode;
        size = static_cast<unsigned long long>(status.st_size);
    } else {
        SysVEntry entry;
        if (!findSysV(sysvIdMappedAt(segment.getPointer()), entry)) {
            throw Failure{"segment /" + name + " is not in /proc/sysvipc/shm"};
        }
        mode = entry.mode;
        size = entry.size;
    }
    std::printf("segment: /%s (%s)\nowner: %s\ntrustee: %s\nmode: %s\nsize: %llu\n", name.c_str(),
                backEnd(options), orNone(segment.getOwner()).c_str(),
                orNone(segment.getTrustee()).c_str(),
                octal(mode).c_str(), size);
    return 0;
}

int list() {
    std::printf("POSIX objects in /dev/shm:\n  %-32s %-12s %-12s %-5s %s\n", "NAME", "OWNER",
                "GROUP", "MODE", "SIZE");
    std::map<std::string, struct stat> objects;
    if (DIR* directory = ::opendir("/dev/shm")) {
        while (const dirent* entry = ::readdir(directory)) {
            struct stat status;
            if (entry->d_name[0] != '.' && statPosix(entry->d_name, status)) {
                objects[entry->d_name] = status;
            }
        }
        ::closedir(directory);
    }
    for (const auto& [name, status] : objects) {
        std::printf("  %-32s %-12s %-12s %-5s %lld\n", name.c_str(), userName(status.st_uid).c_str(),
                    groupName(status.st_gid).c_str(), octal(status.st_mode).c_str(),
                    static_cast<long long>(status.st_size));
    }
    std::printf("System V segments:\n  %-10s %-10s %-12s %-12s %-5s %-12s %s\n", "KEY", "ID",
                "OWNER", "GROUP", "MODE", "SIZE", "ATTACHED");
    for (const SysVEntry& entry : sysvTable()) {
        std::printf("  0x%08x %-10d %-12s %-12s %-5s %-12llu %lu\n",
                    static_cast<unsigned>(entry.key), entry.id, userName(entry.uid).c_str(),
                    groupName(entry.gid).c_str(), octal(entry.mode).c_str(), entry.size,
                    entry.attached);
    }
    return 0;
}

int remove(const Options& options) {
    const std::string name = segmentName(options);
    int id = -1;
    {
        SharedMemory segment = openExisting(options, name);
        if (options.spec == SharedMemory::SysV) id = sysvIdMappedAt(segment.getPointer());
        segment.markForDeletion();
    }
    // Teardown only logs its failures, so look whether the segment is really gone.
    struct stat status;
    if (options.spec == SharedMemory::Posix && statPosix(name, status)) {
        throw Failure{"the segment /" + name + " could not be removed"};
    }
    SysVEntry entry;
    if (options.spec == SharedMemory::SysV && findSysV(id, entry)) {
        if (entry.key != 0) throw Failure{"the segment /" + name + " could not be removed"};
        std::printf("removed /%s (System V); it disappears when its %lu remaining users detach\n",
                    name.c_str(), entry.attached);
        return 0;
    }
    std::printf("removed /%s (%s)\n", name.c_str(), backEnd(options));
    return 0;
}

// Without a sink of its own, Boost.Log would print the records on stdout among the results.
void logToStderr() {
    namespace logging = boost::log;
    auto backend = boost::make_shared<logging::sinks::text_ostream_backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, boost::null_deleter()));
    backend->auto_flush(true);
    auto sink = boost::make_shared<logging::sinks::synchronous_sink<
        logging::sinks::text_ostream_backend>>(backend);
    sink->set_filter(logging::expressions::attr<std::string>("Channel") ==
                     "agent::spf::sharedmemory");
    sink->set_formatter(logging::expressions::stream << "spf-shm: log: "
                                                     << logging::expressions::smessage);
    logging::core::get()->add_sink(sink);
}

}  // namespace

int main(int argc, char** argv) {
    logToStderr();
    try {
        const Options options = parse(argc, argv);
        if (options.command == "name") {
            std::printf("%s\n", sm::deriveSegmentName(options.arguments[0],
                                                      options.arguments.size() > 1
                                                          ? options.arguments[1]
                                                          : std::string())
                                    .c_str());
            return 0;
        }
        if (options.command == "list") return list();
        if (options.command == "show") return show(options);
        if (options.command == "remove") return remove(options);
        return open(options);
    } catch (const UsageError& error) {
        if (error.text.empty()) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::fprintf(stderr, "spf-shm: %s\n\n%s", error.text.c_str(), kUsage);
        return 2;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "spf-shm: %s\n", failure.text.c_str());
        return 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "spf-shm: %s\n", error.what());
        return 1;
    }
}
