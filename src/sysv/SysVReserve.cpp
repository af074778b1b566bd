#include <unistd.h>

#include "sysv/SysVImpl.hpp"

namespace agent::spf::sharedmemory {

void SharedMemory::SysVImpl::reserve() {
    requireAttached();
    if (populate()) {
        return;
    }
    // A kernel without populating: a write access to every page allocates it just the same.
    // Adding zero atomically changes no byte, not even one another process writes meanwhile.
    const unsigned long page = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE));
    auto* const bytes = static_cast<volatile char*>(pointer);
    for (unsigned long offset = 0; offset < size; offset += page) {
        __atomic_fetch_add(bytes + offset, 0, __ATOMIC_RELAXED);
    }
}

}  // namespace agent::spf::sharedmemory
