#include "sysv/SysVImpl.hpp"

namespace agent::spf::sharedmemory {

void SharedMemory::SysVImpl::reserve() {
    requireAttached();
    // A kernel without populating: a write access to every page allocates it just the same.
    if (!populate()) {
        touchEveryPage(true);
    }
}

}  // namespace agent::spf::sharedmemory
