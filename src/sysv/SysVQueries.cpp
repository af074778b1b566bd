#include <grp.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "core/Permissions.hpp"
#include "core/Report.hpp"
#include "sysv/SysVImpl.hpp"

namespace agent::spf::sharedmemory {
namespace {

struct SegmentEntry {
    unsigned mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The kernel's table of segments lists key, mode, uid and gid of every segment whether or not
// the reader may open it: it is the only way to name the owner of a segment shmget refused.
bool readSegmentEntry(key_t key, SegmentEntry& entry) {
    std::FILE* table = std::fopen("/proc/sysvipc/shm", "re");
    if (table == nullptr) {
        return false;
    }
    char line[512];
    bool found = false;
    // The first line is the header.
    if (std::fgets(line, sizeof line, table) != nullptr) {
        while (!found && std::fgets(line, sizeof line, table) != nullptr) {
            long long lineKey;
            unsigned mode;
            unsigned long uid;
            unsigned long gid;
            if (std::sscanf(line, "%lld %*d %o %*u %*d %*d %*u %lu %lu", &lineKey, &mode, &uid,
                            &gid) == 4 &&
                static_cast<key_t>(lineKey) == key) {
                entry = {mode, static_cast<uid_t>(uid), static_cast<gid_t>(gid)};
                found = true;
            }
        }
    }
    std::fclose(table);
    return found;
}

// getpwuid/getgrgid leave errno alone when there is simply no entry; clearing it first keeps a
// stale number out of the texts.
const passwd* userEntry(uid_t uid) {
    errno = 0;
    return ::getpwuid(uid);
}

const group* groupEntry(gid_t gid) {
    errno = 0;
    return ::getgrgid(gid);
}

}  // namespace

std::string SharedMemory::SysVImpl::getOwner() const {
    shmid_ds status;
    if (::shmctl(handle, IPC_STAT, &status) == -1) {
        report<std::runtime_error>(
            [&] { return "SystemError:SharedMemory:getOwner:shmctl" + name + ":error=" + errorNumber(errno); },
            "getOwner(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
    }
    if (!ownerClassComplete(status.shm_perm.mode)) {
        return std::string();
    }
    const passwd* user = userEntry(status.shm_perm.uid);
    if (user == nullptr) {
        report<std::runtime_error>(
            [&] { return "SystemError:SharedMemory:getOwner:getpwuid" + name + ":error=" + errorNumber(errno); },
            "getOwner(): Failed to get the user struct. (Error ", errno, ")");
    }
    return std::string(user->pw_name);
}

std::string SharedMemory::SysVImpl::getTrustee() const {
    return trusteeOf(trusteeStatus());
}

shmid_ds SharedMemory::SysVImpl::trusteeStatus() const {
    shmid_ds status;
    if (::shmctl(handle, IPC_STAT, &status) == -1) {
        report<std::runtime_error>(
            [&] { return "SystemError:SharedMemory:getTrustee:shmctl" + name + ":error=" + errorNumber(errno); },
            "getTrustee(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
    }
    return status;
}

std::string SharedMemory::SysVImpl::trusteeOf(const shmid_ds& status) const {
    if (!groupClassComplete(status.shm_perm.mode)) {
        return std::string();
    }
    const group* entry = groupEntry(status.shm_perm.gid);
    if (entry == nullptr) {
        report<std::runtime_error>(
            [&] { return "SystemError:SharedMemory:getTrustee:getgrgid" + name + ":error=" + errorNumber(errno); },
            "getTrustee(): Failed to get the group struct. (Error ", errno, ")");
    }
    return std::string(entry->gr_name);
}

std::string SharedMemory::SysVImpl::describeOpenFailure(int error) const {
    // `handle` holds nothing yet, so the owner and group come from the kernel's table by key;
    // a piece that cannot be learned stays empty rather than replacing this failure.
    std::string owner;
    std::string group;
    SegmentEntry entry;
    if (readSegmentEntry(segmentKey(name), entry)) {
        if (ownerClassComplete(entry.mode)) {
            if (const passwd* user = userEntry(entry.uid)) {
                owner = user->pw_name;
            }
        }
        if (groupClassComplete(entry.mode)) {
            if (const struct group* found = groupEntry(entry.gid)) {
                group = found->gr_name;
            }
        }
    }
    return "SystemError:SharedMemory:find:shmget: name=<" + name + ">, owning group=<" + group +
           ">, owning user=<" + owner + ">, selected group=<" + trustee +
           ">, current username=<" + getCurrentUserName() + ">, error=" + errorNumber(error);
}

}  // namespace agent::spf::sharedmemory
