// The effective user as segment names and find failure texts spell it. It lives below both the
// handle and the back ends because both use it.
#include <unistd.h>

#include <string>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace agent::spf::sharedmemory {

std::string getCurrentUserName() {
    return "euid: " + std::to_string(::geteuid());
}

}  // namespace agent::spf::sharedmemory
