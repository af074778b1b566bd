// Which processes use which segment. One pass over /proc reads each process's status, memory
// maps and descriptors once and files every shared-memory segment found there, so the cost
// grows with processes plus segments. A process that cannot be read makes the answer for
// unused-looking segments "unknown": only what was seen to be unused is an orphan.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "System.hpp"

namespace spfshm {

namespace {

constexpr unsigned long kKernelThread = 0x00200000;  // PF_KTHREAD in /proc/PID/stat

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

void scanProcess(int process, pid_t pid, dev_t objects, Usage& usage) {
    std::string text;
    if (readAll(process, "stat", text) != 0) return;  // gone meanwhile
    const std::size_t comm = text.rfind(')');
    char runState = 'X';
    unsigned long flags = 0;
    if (comm == std::string::npos ||
        std::sscanf(text.c_str() + comm + 1, " %c %*d %*d %*d %*d %*d %lu", &runState, &flags) !=
            2 ||
        runState == 'Z' || runState == 'X' || (flags & kKernelThread) != 0) {
        return;  // zombies and kernel threads hold no segment
    }
    usage.alive.insert(pid);
    const int error = readAll(process, "maps", text);
    if (error == 0) readMaps(text, pid, objects, usage);
    const bool mapsRead = error == 0 || error == ENOENT || error == ESRCH;
    if (!readDescriptors(process, pid, objects, usage) || !mapsRead) ++usage.unreadable;
}

}  // namespace

Usage scanProcesses() {
    Usage usage;
    usage.everyProcessSeen = !procHidesProcesses();
    struct stat objectDirectory;
    const dev_t objects = ::stat("/dev/shm", &objectDirectory) == 0 ? objectDirectory.st_dev : 0;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        usage.everyProcessSeen = false;
        return usage;
    }
    while (const dirent* entry = ::readdir(proc)) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
        const int process =
            ::openat(::dirfd(proc), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (process < 0) continue;
        scanProcess(process, static_cast<pid_t>(std::atoi(entry->d_name)), objects, usage);
        ::close(process);
    }
    ::closedir(proc);
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
        // A creator in another PID namespace shows as 0: it may well live.
        const auto lives = [&](pid_t pid) { return pid != 0 && usage.alive.count(pid) != 0; };
        if (lives(segment.creatorPid) || lives(segment.lastPid)) return "idle";
        return segment.creatorPid == 0 || !usage.everyProcessSeen ? "unknown" : "orphan";
    }
    if (!users(segment, usage).empty()) return "in-use";
    return usage.unreadable == 0 && usage.everyProcessSeen ? "orphan" : "unknown";
}

}  // namespace spfshm
