// The back-end interface behind SharedMemory: the state of one open segment, the eight
// operations a back end supplies, and what both back ends share (the opening sequence,
// create-or-find, the deletion flags, teardown).
#ifndef SPF_SHAREDMEMORY_CORE_IMPL_HPP
#define SPF_SHAREDMEMORY_CORE_IMPL_HPP

#include <string>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace agent::spf::sharedmemory {

class __attribute__((visibility("hidden"))) SharedMemory::Impl {
public:
    // Rounds in which both create() and find() opened nothing before createOrFind() gives up.
    // A real race needs another process to remove the segment inside every single round, so
    // this is reached only when no segment of this name can ever exist (e.g. a size System V
    // refuses), where it ends the loop in milliseconds instead of never.
    static constexpr int kMaxEmptyRounds = 10000;

    // `name` is the segment name without its leading "/".
    Impl(const std::string& name, unsigned long size);
    Impl(const std::string& name, unsigned long size, bool create);
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    virtual ~Impl();

    virtual std::string getTrustee() const = 0;
    virtual std::string getOwner() const = 0;
    // -1 when the name is taken; throws on any other failure.
    virtual int create() = 0;
    // -1 when no segment has the name; throws on any other failure.
    virtual int find() = 0;
    virtual std::string setTrustee(const std::string& trustee) = 0;
    virtual void* attach() = 0;
    // Backs the attached segment with memory and maps all of it in; never changes a byte.
    virtual void reserve() = 0;
    // Teardown steps: they log failures and never throw.
    virtual void detach() = 0;
    virtual void removeAndClose() = 0;

    bool isCreator() const noexcept { return creator; }
    void* getPointer() const noexcept { return pointer; }
    bool isAttached() const noexcept { return pointer != nullptr; }
    void markForDeletion() noexcept { markedForDeletion = true; }
    void makePersistent();

    // The rest of every back end's construction once `opened` (a handle, or -1) is known:
    // stores it, settles the trustee and attaches. Whatever escapes gives the segment up
    // through abandon() and passes on, so that a failed construction leaves nothing behind.
    void open(int opened, const std::string& requestedTrustee);
    // Gives up a segment that a construction has opened: removeAndClose(), plus whatever else a
    // back end holds that removeAndClose() leaves open. Never throws; errno is left as
    // removeAndClose() leaves it, so that a text built afterwards reads what the failure (or a
    // failed removal) set.
    virtual void abandon() noexcept;

    // What both back ends' reserve() do: refuse a handle that maps nothing, and fault every page
    // of the mapping in for writing. populate() returns false when the kernel does not know how
    // (before Linux 5.14) and throws on any other failure; touchEveryPage() reads or writes one
    // byte of each page without changing it.
    void requireAttached() const;
    bool populate() const;
    void touchEveryPage(bool write) const;

    bool tryCreateOrFind(int& handle);
    int createOrFind();
    void destruct() noexcept;

    bool creator = false;
    bool markedForDeletion = false;
    std::string name;
    unsigned long size;
    int handle = -1;
    std::string trustee;
    void* pointer = nullptr;
};

}  // namespace agent::spf::sharedmemory

#endif
