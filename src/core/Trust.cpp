#include "core/Trust.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/DatabaseEntry.hpp"
#include "core/Permissions.hpp"
#include "core/Report.hpp"

namespace agent::spf::sharedmemory {
namespace {

bool isOwnGroup(gid_t gid) {
    if (::getegid() == gid) {
        return true;
    }
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
    const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
    return count > 0 && static_cast<std::size_t>(count) <= groups.size() &&
           std::find(groups.begin(), groups.begin() + count, gid) != groups.begin() + count;
}

// Whether the segment is shared with this process through its group: the whole group class,
// nothing for others, and the group asked for or, with none asked for, one of this process's.
bool sharedThroughGroup(const SegmentControl& control, const gid_t* requestedGroup) {
    if (!groupClassComplete(control.mode) || (control.mode & S_IRWXO) != 0) {
        return false;
    }
    return requestedGroup != nullptr ? *requestedGroup == control.group : isOwnGroup(control.group);
}

// The name and primary group of `user`, or code -1 and nothing when the database has none.
LookupResult<std::pair<std::string, gid_t>> account(uid_t user) {
    return lookupDatabaseEntry<passwd>(_SC_GETPW_R_SIZE_MAX, user, ::getpwuid_r, [](const passwd& entry) {
        return std::make_pair(std::string(entry.pw_name), entry.pw_gid);
    });
}

std::string groupName(gid_t gid) {
    return lookupDatabaseEntry<group>(_SC_GETGR_R_SIZE_MAX, gid, ::getgrgid_r,
                                      [](const group& entry) { return std::string(entry.gr_name); })
        .item;
}

// Membership as the databases record it: the user's primary group, or a group that lists it. A
// lookup that fails makes no member.
bool isMember(uid_t user, gid_t gid) {
    const auto found = account(user);
    if (found.code != 0) {
        return false;
    }
    if (found.item.second == gid) {
        return true;
    }
    const auto lists = [&](const group& entry) {
        for (char* const* member = entry.gr_mem; member != nullptr && *member != nullptr; ++member) {
            if (found.item.first == *member) {
                return true;
            }
        }
        return false;
    };
    const auto listed = lookupDatabaseEntry<group>(_SC_GETGR_R_SIZE_MAX, gid, ::getgrgid_r, lists);
    return listed.code == 0 && listed.item;
}

// The first controller not to be trusted; `count` when all are. A segment that is no regular
// file is refused whoever controls it, and its owner named.
std::size_t firstUntrusted(const SegmentControl& control, const gid_t* requestedGroup) {
    if (!control.regularFile) {
        return 0;
    }
    std::optional<uid_t> self;
    std::optional<bool> shared;
    for (std::size_t index = 0; index < control.count; ++index) {
        const uid_t user = control.controllers[index];
        if (user == 0) {
            continue;
        }
        if (!self) {
            self = ::geteuid();
        }
        if (user == *self) {
            continue;
        }
        if (!shared) {
            shared = sharedThroughGroup(control, requestedGroup);
        }
        if (!*shared || !isMember(user, control.group)) {
            return index;
        }
    }
    return control.count;
}

}  // namespace

void requireTrust(SharedMemory::Impl& segment, const SegmentControl& control, const gid_t* requestedGroup) {
    const std::size_t untrusted = firstUntrusted(control, requestedGroup);
    if (untrusted == control.count) {
        return;
    }
    const uid_t uid = control.controllers[untrusted];
    const std::string user = account(uid).item.first, number = std::to_string(uid);
    const std::string group = groupName(control.group);
    char mode[24];
    std::snprintf(mode, sizeof mode, "%04o", control.regularFile ? control.mode & 07777u : control.mode);
    // Nothing of the segment is changed: a finder is never marked for deletion while it opens.
    writeRecord("find(): Refused the segment: <", segment.name, "> controlled by the untrusted user <",
                user, "> (uid ", number, ") with group <", group, "> and mode <", mode, ">. (Error ",
                EACCES, ")");
    segment.abandon();
    throw std::runtime_error("SystemError:SharedMemory:find:trust: name=<" + segment.name +
                             ">, untrusted user=<" + user + ">, uid=<" + number + ">, group=<" + group +
                             ">, mode=<" + mode + ">, error=" + errorNumber(EACCES));
}

}  // namespace agent::spf::sharedmemory
