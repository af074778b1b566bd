// The System V back end: a segment found under a key hashed from its name.
#ifndef SPF_SHAREDMEMORY_SYSV_SYSVIMPL_HPP
#define SPF_SHAREDMEMORY_SYSV_SYSVIMPL_HPP

#include <sys/shm.h>
#include <sys/types.h>

#include <string>

#include "core/Impl.hpp"

namespace agent::spf::sharedmemory {

class __attribute__((visibility("hidden"))) SharedMemory::SysVImpl final : public SharedMemory::Impl {
public:
    SysVImpl(const std::string& name, unsigned long size, const std::string& trustee);
    SysVImpl(const std::string& name, unsigned long size, bool create, const std::string& trustee);
    ~SysVImpl() override;

    std::string getTrustee() const override;
    std::string getOwner() const override;
    int create() override;
    int find() override;
    std::string setTrustee(const std::string& trustee) override;
    void* attach() override;
    void reserve() override;
    void detach() override;
    void removeAndClose() override;

private:
    std::string describeOpenFailure(int error) const;
    // getTrustee() in two steps, so that a finder checks the status it read before it adopts
    // the segment's trustee.
    shmid_ds trusteeStatus() const;
    std::string trusteeOf(const shmid_ds& status) const;
    std::string acceptFound(const std::string& requested, const gid_t* requestedGroup);
};

// The System V key of a segment name (the whole name, its leading "/" included).
key_t segmentKey(const std::string& name) noexcept;

}  // namespace agent::spf::sharedmemory

#endif
