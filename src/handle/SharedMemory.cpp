#include "agent/spf/sharedmemory/SharedMemory.hpp"

#include <stdexcept>
#include <utility>

#include "posix/PosixImpl.hpp"
#include "sysv/SysVImpl.hpp"

namespace agent::spf::sharedmemory {
namespace {

// The back end is stored only once its constructor has returned; a throwing constructor leaves
// nothing to store and the exception passes on.
template <typename... Args>
std::unique_ptr<SharedMemory::Impl> makeBackEnd(SharedMemory::ImplementationSpecifications spec,
                                                Args&&... args) {
    switch (spec) {
        case SharedMemory::Posix:
            return std::make_unique<SharedMemory::PosixImpl>(std::forward<Args>(args)...);
        case SharedMemory::SysV:
            return std::make_unique<SharedMemory::SysVImpl>(std::forward<Args>(args)...);
    }
    return nullptr;
}

}  // namespace

SharedMemory::SharedMemory(const std::string& name, unsigned long size, const std::string& trustee,
                           ImplementationSpecifications spec)
    : impl(makeBackEnd(spec, name, size, trustee)) {}

SharedMemory::SharedMemory(const std::string& name, unsigned long size, const char* trustee,
                           ImplementationSpecifications spec)
    : SharedMemory(name, size, std::string(trustee != nullptr ? trustee : ""), spec) {}

SharedMemory::SharedMemory(const std::string& name, unsigned long size, bool create,
                           const std::string& trustee, ImplementationSpecifications spec)
    : impl(makeBackEnd(spec, name, size, create, trustee)) {}

SharedMemory::SharedMemory(SharedMemory&& other) noexcept = default;

SharedMemory& SharedMemory::operator=(SharedMemory&& other) noexcept {
    // Take, store, then let the old object go: a self-assignment then keeps its own segment.
    std::unique_ptr<Impl> taken = std::move(other.impl);
    impl.swap(taken);
    return *this;
}

SharedMemory::~SharedMemory() = default;

const SharedMemory::Impl& SharedMemory::held() const {
    if (!impl) {
        throw std::logic_error(
            "SharedMemory: the handle is empty (moved from, or built with an unknown back end)");
    }
    return *impl;
}

SharedMemory::Impl& SharedMemory::held() {
    return const_cast<Impl&>(std::as_const(*this).held());
}

bool SharedMemory::isCreator() const { return held().isCreator(); }
void* SharedMemory::getPointer() const { return held().getPointer(); }
bool SharedMemory::isAttached() const { return held().isAttached(); }
void SharedMemory::markForDeletion() { held().markForDeletion(); }
void SharedMemory::makePersistent() { held().makePersistent(); }
std::string SharedMemory::getTrustee() const { return held().getTrustee(); }
std::string SharedMemory::getOwner() const { return held().getOwner(); }
void SharedMemory::reserve() { held().reserve(); }

SharedMemory SharedMemory::create(const std::string& name, unsigned long size,
                                  const std::string& trustee, ImplementationSpecifications spec) {
    return SharedMemory(deriveSegmentName(name, trustee), size, true, trustee, spec);
}

SharedMemory SharedMemory::find(const std::string& name, unsigned long size,
                                const std::string& trustee, ImplementationSpecifications spec) {
    return SharedMemory(deriveSegmentName(name, trustee), size, false, trustee, spec);
}

SharedMemory SharedMemory::createOrFind(const std::string& name, unsigned long size,
                                        const std::string& trustee,
                                        ImplementationSpecifications spec) {
    return SharedMemory(deriveSegmentName(name, trustee), size, trustee, spec);
}

std::int32_t deriveSystemVKey(const std::string& name) { return segmentKey("/" + name); }

}  // namespace agent::spf::sharedmemory
