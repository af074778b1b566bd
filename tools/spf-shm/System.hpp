// What the system shows about shared memory, read without opening any segment: the POSIX
// objects in /dev/shm, the kernel's System V table, and which processes use which segment.
#ifndef SPF_SHM_SYSTEM_HPP
#define SPF_SHM_SYSTEM_HPP

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <unordered_map>
#include <vector>

namespace spfshm {

// One segment as the system describes it. POSIX objects have a name and no key or id; System V
// segments have a key and an id and no name.
struct Segment {
    bool sysv = false;
    std::string name;  // POSIX: the object name, without the leading "/"
    std::int32_t key = 0;
    int id = -1;
    unsigned mode = 0;  // permission bits only
    unsigned long long size = 0;
    unsigned long long allocated = 0;  // bytes of memory it holds (System V: resident and swapped)
    uid_t uid = 0, creatorUid = 0;
    gid_t gid = 0, creatorGid = 0;
    pid_t creatorPid = 0, lastPid = 0;  // System V; 0 when not visible from here
    unsigned long attached = 0;         // System V attach count
    bool markedForRemoval = false;      // System V: removed, waiting for its last detach
    std::time_t changed = 0;            // the latest attach, access or change time kept
    std::time_t created = 0;            // System V: creation or latest IPC_SET
    std::time_t lastUsed = 0;           // System V: the latest attach or detach
    dev_t device = 0;                   // POSIX: the object's file
    ino_t inode = 0;
};

// The regular files in /dev/shm, sorted by name. Directories, links and devices are not objects.
std::vector<Segment> posixObjects();
// One regular file in /dev/shm; false when there is none of that name.
bool posixObject(const std::string& name, Segment& out);
// The kernel's System V table (/proc/sysvipc/shm), in its order. Throws Failure when the table
// cannot be read: an empty table would claim that there are no segments.
std::vector<Segment> sysvSegments();

// Which processes use which segment, from one pass over /proc.
struct Usage {
    std::unordered_map<ino_t, std::vector<pid_t>> posix;  // inode on the /dev/shm file system
    std::unordered_map<int, std::vector<pid_t>> sysv;     // System V id
    std::unordered_map<pid_t, std::time_t> alive;  // every live process (no zombies): its start
    std::vector<pid_t> unreadable;  // processes whose descriptors or maps could not be read
    bool everyProcessSeen = true;   // false: /proc is missing or hides some; `alive` is partial
    // Why a process that uses a POSIX object may not have been seen (no /proc, hidepid, another
    // PID namespace, unreadable processes); empty when every one was.
    std::string blind;
};
// `seesAll`: the operator's word that this PID namespace holds every user of /dev/shm.
Usage scanProcesses(bool seesAll = false);

// How a segment is used: "in-use", "idle" (System V: nothing attached, but its creator or last
// user lives, and started before it used the segment), "orphan" (nothing uses it), "unknown"
// (what would tell was not readable, see Usage::blind), "removing" (System V: removed, still
// attached).
std::string state(const Segment& segment, const Usage& usage);
const std::vector<pid_t>& users(const Segment& segment, const Usage& usage);

}  // namespace spfshm

#endif
