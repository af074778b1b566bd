#include <fcntl.h>

#include <cerrno>
#include <stdexcept>

#include "core/Report.hpp"
#include "posix/PosixImpl.hpp"

namespace agent::spf::sharedmemory {

void SharedMemory::PosixImpl::reserve() {
    requireAttached();
    // The object's pages are allocated here, where a full /dev/shm is an error number, rather
    // than at some later access, where it is a SIGBUS. A failed call gives back what it had
    // allocated itself; it is simply repeated when a signal interrupts it.
    int error;
    while ((error = ::posix_fallocate(handle, 0, static_cast<off_t>(size))) == EINTR) {
    }
    if (error != 0) {
        report<std::runtime_error>(
            "SystemError:SharedMemory:reserve:posix_fallocate" + name + ":error=" + errorNumber(error),
            "reserve(): Failed to reserve the segment: <", name, ">. (Error ", error, ")");
    }
    // On a kernel without populating, the reserved pages still fault in as they are first touched.
    populate();
}

}  // namespace agent::spf::sharedmemory
