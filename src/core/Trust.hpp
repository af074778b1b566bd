// Whom a finder trusts with a segment it did not create. Whoever controls a segment can read
// and change its bytes under every process that maps it, and segment names are predictable, so
// anyone could have made the segment a finder opens. A finder accepts it only from its own
// effective user, from root, or from a member of a group through which the segment is shared
// with this process.
#ifndef SPF_SHAREDMEMORY_CORE_TRUST_HPP
#define SPF_SHAREDMEMORY_CORE_TRUST_HPP

#include <sys/types.h>

#include <cstddef>

#include "core/Impl.hpp"

namespace agent::spf::sharedmemory {

// Who controls a segment, as the status its trustee query reads tells it.
struct SegmentControl {
    uid_t controllers[2];  // the owner, and for System V the creator, whom IPC_SET cannot forge
    std::size_t count;
    gid_t group;
    unsigned mode;         // as the system records it, file type bits included for POSIX
    bool regularFile;      // a POSIX object must be one; a System V segment always counts as one
};

// Returns when the finder `segment` may trust the segment it opened: each controller is this
// process's effective user, root, or a member of the segment's group while that group has rwx,
// others have nothing, and it is the requested trustee (`requestedGroup`, null for none) or, with
// none requested, one of this process's groups. Otherwise writes one record, gives the segment
// up (which changes nothing of it) and throws std::runtime_error with error number 13. Reads
// the group database only for a controller that is neither this process's user nor root.
void requireTrust(SharedMemory::Impl& segment, const SegmentControl& control, const gid_t* requestedGroup);

}  // namespace agent::spf::sharedmemory

#endif
