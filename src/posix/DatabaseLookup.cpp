#include "posix/DatabaseLookup.hpp"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "core/DatabaseEntry.hpp"

namespace agent::spf::sharedmemory {

LookupResult<std::string> lookupUserName(uid_t uid) {
    return lookupDatabaseEntry<passwd>(_SC_GETPW_R_SIZE_MAX, uid, ::getpwuid_r,
                                       [](const passwd& entry) { return std::string(entry.pw_name); });
}

LookupResult<std::string> lookupGroupName(gid_t gid) {
    return lookupDatabaseEntry<group>(_SC_GETGR_R_SIZE_MAX, gid, ::getgrgid_r,
                                      [](const group& entry) { return std::string(entry.gr_name); });
}

LookupResult<gid_t> lookupGroupId(const std::string& name) {
    return lookupDatabaseEntry<group>(_SC_GETGR_R_SIZE_MAX, name.c_str(), ::getgrnam_r,
                                      [](const group& entry) { return entry.gr_gid; });
}

}  // namespace agent::spf::sharedmemory
