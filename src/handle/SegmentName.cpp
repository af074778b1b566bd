// System-wide segment names: every process that passes the same name and trustee (or, without a
// trustee, runs as the same effective user) derives the same name.
#include <string>

#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "core/Hash.hpp"

namespace agent::spf::sharedmemory {

std::string deriveSegmentName(const std::string& name, const std::string& trustee) {
    // Nothing separates the pieces; the last letter keeps a trustee that reads like a user text
    // apart from that user's own names.
    std::string text = trustee.empty() ? getCurrentUserName() : trustee;
    text += name;
    text += trustee.empty() ? 'u' : 't';
    return hashToHexString(text);
}

}  // namespace agent::spf::sharedmemory
