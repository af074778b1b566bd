// The POSIX back end: a shared-memory object opened by name, whose file size carries the
// segment size between processes.
#ifndef SPF_SHAREDMEMORY_POSIX_POSIXIMPL_HPP
#define SPF_SHAREDMEMORY_POSIX_POSIXIMPL_HPP

#include <sys/stat.h>

#include <string>

#include "core/Impl.hpp"

namespace agent::spf::sharedmemory {

class __attribute__((visibility("hidden"))) SharedMemory::PosixImpl final : public SharedMemory::Impl {
public:
    PosixImpl(const std::string& name, unsigned long size, const std::string& trustee);
    PosixImpl(const std::string& name, unsigned long size, bool create, const std::string& trustee);
    ~PosixImpl() override;

    std::string getTrustee() const override;
    std::string getOwner() const override;
    int create() override;
    int find() override;
    std::string setTrustee(const std::string& trustee) override;
    void* attach() override;
    void reserve() override;
    void detach() override;
    void removeAndClose() override;
    // removeAndClose(), then closes the descriptor that it forgot; errno is kept across the
    // close, so the texts that follow read what the failure (or a failed unlink) left.
    void abandon() noexcept override;

    // True once the object holds at least `size` bytes, false while it is empty. Throws (after
    // giving the object up) on a failed fstat or a size between the two.
    bool isTruncated();

private:
    void sizeEmptyObject();
    // Takes the sizing lock, waiting at most about a second; false when it was not taken.
    bool lockForSizing() const;
    std::string describeOpenFailure(int error) const;
    // getTrustee() in two steps, so that a finder checks the status it read before it adopts
    // the segment's trustee.
    struct stat trusteeStatus() const;
    std::string trusteeOf(const struct stat& status) const;
    std::string acceptFound(const std::string& requested, const gid_t* requestedGroup);
};

}  // namespace agent::spf::sharedmemory

#endif
