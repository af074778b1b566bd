// The POSIX back end's user and group lookups (see core/DatabaseEntry.hpp).
#ifndef SPF_SHAREDMEMORY_POSIX_DATABASELOOKUP_HPP
#define SPF_SHAREDMEMORY_POSIX_DATABASELOOKUP_HPP

#include <sys/types.h>

#include <string>

#include "core/DatabaseEntry.hpp"

namespace agent::spf::sharedmemory {

LookupResult<std::string> lookupUserName(uid_t uid);
LookupResult<std::string> lookupGroupName(gid_t gid);
LookupResult<gid_t> lookupGroupId(const std::string& group);

}  // namespace agent::spf::sharedmemory

#endif
