// Which processes use which segment. One pass over /proc reads each process's status, memory
// maps and descriptors once and files every shared-memory segment found there, so the cost
// grows with processes plus segments. A process that is not seen (no /proc, hidepid, another
// PID namespace, an unreadable process) makes the answer for unused-looking segments
// "unknown": only what was seen to be unused is an orphan.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "System.hpp"

namespace spfshm {

namespace {

constexpr unsigned long kKernelThread = 0x00200000;  // PF_KTHREAD in /proc/PID/stat
constexpr ino_t kInitialPidNamespace = 0xEFFFFFFC;   // PROC_PID_INIT_INO, fixed by the kernel
constexpr long kProcMagic = 0x9fa0;                  // PROC_SUPER_MAGIC

// The whole of a /proc file; the error number when it cannot be read (0 on success).
int readAll(int directory, const char* name, std::string& text) {
    text.clear();
    const int descriptor = ::openat(directory, name, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return errno;
    char buffer[16384];
    ssize_t got;
    while ((got = ::read(descriptor, buffer, sizeof buffer)) > 0) text.append(buffer, got);
    const int error = got < 0 ? errno : 0;
    ::close(descriptor);
    return error;
}

void add(std::vector<pid_t>& pids, pid_t pid) {
    if (pids.empty() || pids.back() != pid) pids.push_back(pid);
}

// With hidepid, an unprivileged reader sees only its own processes in /proc.
bool procHidesProcesses() {
    if (::geteuid() == 0) return false;
    std::string mounts;
    if (readAll(AT_FDCWD, "/proc/self/mounts", mounts) != 0) return true;
    for (std::size_t at = 0; (at = mounts.find(" /proc proc ", at)) != std::string::npos; ++at) {
        const std::string options = mounts.substr(at, mounts.find('\n', at) - at);
        const std::size_t hide = options.find("hidepid=");
        if (hide != std::string::npos && options.compare(hide + 8, 1, "0") != 0 &&
            options.compare(hide + 8, 3, "off") != 0) {
            return true;
        }
    }
    return false;
}

void readMaps(const std::string& maps, pid_t pid, dev_t objects, Usage& usage) {
    for (std::size_t at = 0; at < maps.size();) {
        std::size_t end = maps.find('\n', at);
        if (end == std::string::npos) end = maps.size();
        const std::string line = maps.substr(at, end - at);
        at = end + 1;
        unsigned major, minor;
        unsigned long inode;
        int path = 0;
        if (std::sscanf(line.c_str(), "%*s %*s %*s %x:%x %lu %n", &major, &minor, &inode, &path) <
            3) {
            continue;
        }
        if (line.compare(path, 5, "/SYSV") == 0) {  // id 0 is a segment too
            add(usage.sysv[static_cast<int>(inode)], pid);  // the kernel shows the id as inode
        } else if (inode != 0 && makedev(major, minor) == objects) {
            add(usage.posix[inode], pid);
        }
    }
}

// False when the process's descriptors cannot be listed.
bool readDescriptors(int process, pid_t pid, dev_t objects, Usage& usage) {
    const int descriptors = ::openat(process, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptors < 0) return errno == ENOENT;
    DIR* listing = ::fdopendir(descriptors);
    if (listing == nullptr) {
        ::close(descriptors);
        return false;
    }
    while (const dirent* entry = ::readdir(listing)) {
        struct stat status;
        if (entry->d_name[0] != '.' && ::fstatat(descriptors, entry->d_name, &status, 0) == 0 &&
            status.st_dev == objects && S_ISREG(status.st_mode)) {
            add(usage.posix[status.st_ino], pid);
        }
    }
    ::closedir(listing);
    return true;
}

constexpr long long kBillion = 1000000000;

// When this boot began, in nanoseconds on the clock that stamps System V segments; with
// /proc/PID/stat's start in ticks since boot it dates a process. Whole seconds would be off by
// up to two, too coarse to tell a reused pid.
long long bootTime() {
    timespec now{}, sinceBoot{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    return (now.tv_sec - sinceBoot.tv_sec) * kBillion + (now.tv_nsec - sinceBoot.tv_nsec);
}

void scanProcess(int process, pid_t pid, dev_t objects, long long boot, Usage& usage) {
    std::string text;
    if (const int error = readAll(process, "stat", text)) {
        if (error == ENOENT || error == ESRCH) return;  // gone meanwhile
        usage.unreadable.push_back(pid);
        usage.everyProcessSeen = false;  // whether it lives is not known either
        return;
    }
    const std::size_t comm = text.rfind(')');
    char runState = 'X';
    unsigned long flags = 0;
    unsigned long long start = 0;
    if (comm == std::string::npos ||
        std::sscanf(text.c_str() + comm + 1,
                    " %c %*d %*d %*d %*d %*d %lu %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d "
                    "%llu",
                    &runState, &flags, &start) != 3 ||
        runState == 'Z' || runState == 'X' || (flags & kKernelThread) != 0) {
        return;  // zombies and kernel threads hold no segment
    }
    static const long long ticks = ::sysconf(_SC_CLK_TCK);
    const long long since = static_cast<long long>(start);
    usage.alive[pid] = static_cast<std::time_t>(
        (boot + since / ticks * kBillion + since % ticks * kBillion / ticks) / kBillion);
    const int error = readAll(process, "maps", text);
    if (error == 0) readMaps(text, pid, objects, usage);
    const bool mapsRead = error == 0 || error == ENOENT || error == ESRCH;
    if (!readDescriptors(process, pid, objects, usage) || !mapsRead)
        usage.unreadable.push_back(pid);
}

// Says in `usage` why some process that may use a POSIX object cannot be seen from here, as far
// as that is known before any process is read. False when /proc shows no process at all.
bool lookAtProc(bool seesAll, Usage& usage) {
    struct statfs proc {};
    const bool mounted = ::statfs("/proc", &proc) == 0;
    if (!mounted || proc.f_type != kProcMagic) {
        usage.blind = mounted ? "no proc file system on /proc"
                              : std::string("cannot read /proc: ") + std::strerror(errno);
        usage.everyProcessSeen = false;
        return false;
    }
    if (procHidesProcesses()) {
        usage.blind = "/proc hides other users' processes";
        usage.everyProcessSeen = false;
        return true;
    }
    // A /proc of another PID namespace does not show this process. Containers that share
    // /dev/shm need not see each other's processes; an operator who knows that this namespace
    // holds every user may say so.
    struct stat pidNamespace;
    if (::stat("/proc/self/ns/pid", &pidNamespace) != 0) {
        usage.blind = std::string("cannot tell the PID namespace: ") + std::strerror(errno);
        usage.everyProcessSeen = false;  // its pids need not be this namespace's
    } else if (pidNamespace.st_ino != kInitialPidNamespace && !seesAll) {
        usage.blind = "not in the initial PID namespace";
    }
    return true;
}

std::string unreadableList(const std::vector<pid_t>& pids) {
    std::string text = "cannot read process";
    for (std::size_t at = 0; at < pids.size() && at < 10; ++at)
        text += (at == 0 ? pids.size() == 1 ? " " : "es " : ", ") + std::to_string(pids[at]);
    return pids.size() > 10 ? text + " and " + std::to_string(pids.size() - 10) + " more" : text;
}

}  // namespace

Usage scanProcesses(bool seesAll) {
    Usage usage;
    if (!lookAtProc(seesAll, usage)) return usage;
    struct stat objectDirectory;
    const dev_t objects = ::stat("/dev/shm", &objectDirectory) == 0 ? objectDirectory.st_dev : 0;
    const long long boot = bootTime();
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        usage.blind = std::string("cannot read /proc: ") + std::strerror(errno);
        usage.everyProcessSeen = false;
        return usage;
    }
    while (const dirent* entry = ::readdir(proc)) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        const int process =
            ::openat(::dirfd(proc), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (process >= 0) {
            scanProcess(process, pid, objects, boot, usage);
            ::close(process);
        } else if (errno != ENOENT && errno != ESRCH) {
            usage.unreadable.push_back(pid);
            usage.everyProcessSeen = false;
        }
    }
    ::closedir(proc);
    if (!usage.unreadable.empty())
        usage.blind += (usage.blind.empty() ? "" : "; ") + unreadableList(usage.unreadable);
    return usage;
}

const std::vector<pid_t>& users(const Segment& segment, const Usage& usage) {
    static const std::vector<pid_t> none;
    if (segment.sysv) {
        const auto found = usage.sysv.find(segment.id);
        return found == usage.sysv.end() ? none : found->second;
    }
    const auto found = usage.posix.find(segment.inode);
    return found == usage.posix.end() ? none : found->second;
}

std::string state(const Segment& segment, const Usage& usage) {
    if (segment.sysv) {
        if (segment.markedForRemoval) return "removing";
        if (segment.attached > 0) return "in-use";
        // A process that started after it last touched the segment got its pid reused; a
        // second's grace covers the clocks' rounding. A creator in another PID namespace shows
        // as 0: it may well live.
        const auto lives = [&](pid_t pid, std::time_t touched) {
            const auto found = pid != 0 ? usage.alive.find(pid) : usage.alive.end();
            return found != usage.alive.end() && found->second <= touched + 1;
        };
        if (lives(segment.creatorPid, segment.created) || lives(segment.lastPid, segment.lastUsed))
            return "idle";
        return segment.creatorPid == 0 || !usage.everyProcessSeen ? "unknown" : "orphan";
    }
    if (!users(segment, usage).empty()) return "in-use";
    return usage.blind.empty() ? "orphan" : "unknown";
}

}  // namespace spfshm
