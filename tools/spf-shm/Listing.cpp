// The segments as the system lists them. Nothing here opens a segment: an object's size and
// permissions come from its directory entry, a System V segment's from the kernel's table.
#include <dirent.h>
#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Arguments.hpp"
#include "System.hpp"

namespace spfshm {

namespace {

const char kObjectDirectory[] = "/dev/shm";

bool fromStatus(const std::string& name, const struct stat& status, Segment& out) {
    if (!S_ISREG(status.st_mode)) return false;
    out = Segment{};
    out.name = name;
    out.mode = status.st_mode & 07777;
    out.size = static_cast<unsigned long long>(status.st_size);
    out.allocated = static_cast<unsigned long long>(status.st_blocks) * 512;
    out.uid = out.creatorUid = status.st_uid;
    out.gid = out.creatorGid = status.st_gid;
    out.changed = std::max({status.st_atime, status.st_mtime, status.st_ctime});
    out.device = status.st_dev;
    out.inode = status.st_ino;
    return true;
}

}  // namespace

std::vector<Segment> posixObjects() {
    std::vector<Segment> objects;
    DIR* directory = ::opendir(kObjectDirectory);
    if (directory == nullptr) return objects;
    while (const dirent* entry = ::readdir(directory)) {
        struct stat status;
        Segment object;
        if (::fstatat(::dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            fromStatus(entry->d_name, status, object)) {
            objects.push_back(std::move(object));
        }
    }
    ::closedir(directory);
    std::sort(objects.begin(), objects.end(),
              [](const Segment& a, const Segment& b) { return a.name < b.name; });
    return objects;
}

bool posixObject(const std::string& name, Segment& out) {
    struct stat status;
    const std::string path = std::string(kObjectDirectory) + "/" + name;
    return ::lstat(path.c_str(), &status) == 0 && fromStatus(name, status, out);
}

std::vector<Segment> sysvSegments() {
    std::vector<Segment> segments;
    FILE* table = std::fopen("/proc/sysvipc/shm", "re");
    if (table == nullptr) {
        throw Failure{std::string("cannot read /proc/sysvipc/shm (") + std::strerror(errno) +
                      "): System V segments are not visible here"};
    }
    char line[512];
    bool header = true;
    while (std::fgets(line, sizeof line, table) != nullptr) {
        if (header) {
            header = false;
            continue;
        }
        Segment segment;
        segment.sysv = true;
        unsigned uid, gid, cuid, cgid;
        long long atime, dtime, ctime;
        unsigned long long resident = 0, swapped = 0;  // in bytes, from Linux 4.6 on
        if (std::sscanf(line, "%d %d %o %llu %d %d %lu %u %u %u %u %lld %lld %lld %llu %llu",
                        &segment.key, &segment.id, &segment.mode, &segment.size,
                        &segment.creatorPid, &segment.lastPid, &segment.attached, &uid, &gid, &cuid,
                        &cgid, &atime, &dtime, &ctime, &resident, &swapped) < 14) {
            continue;
        }
        // The kernel keeps its status bits beside the permissions: removal pending, locked.
        segment.markedForRemoval = (segment.mode & SHM_DEST) != 0;
        segment.mode &= 0777;
        segment.uid = uid, segment.gid = gid, segment.creatorUid = cuid, segment.creatorGid = cgid;
        segment.changed = static_cast<std::time_t>(std::max({atime, dtime, ctime}));
        segment.allocated = resident + swapped;
        segment.created = static_cast<std::time_t>(ctime);
        segment.lastUsed = static_cast<std::time_t>(std::max(atime, dtime));
        segments.push_back(segment);
    }
    std::fclose(table);
    return segments;
}

}  // namespace spfshm
