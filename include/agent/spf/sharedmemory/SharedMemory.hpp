// spf-sharedmemory: named, fixed-size shared-memory segments for processes on one host.
//
// A SharedMemory handle creates, finds, or creates-or-finds one segment, grants an optional
// trustee group access to it and maps it into the process. Destroying the handle unmaps the
// segment and removes it from the system when the handle is marked for deletion (by default:
// the process that created it). Two back ends stand behind the handle: POSIX shared-memory
// objects and System V shared-memory segments.
//
// Every failure is written as one record on the Boost.Log channel "agent::spf::sharedmemory"
// (severity 512) and then thrown: std::runtime_error for a failed system call or database
// lookup, std::invalid_argument for a trustee that names no group.
//
// A finder trusts only the segments it may: before it sizes, locks or maps a segment it did not
// create, it checks the segment's controllers (the owner; for System V also the creator). Each
// must be the effective user, root, or a member of the segment's group while that group has rwx,
// others have no access, and it is the requested trustee (with none requested: one of this
// process's groups); a POSIX object must be a regular file. Otherwise the finder records
//   find(): Refused the segment: </NAME> controlled by the untrusted user <USER> (uid UID) with
//   group <GROUP> and mode <MODE>. (Error 13)
// (one line), leaves the segment unchanged and throws std::runtime_error
//   SystemError:SharedMemory:find:trust: name=</NAME>, untrusted user=<USER>, uid=<UID>,
//   group=<GROUP>, mode=<MODE>, error=13
// (one line; MODE in octal, e.g. 0666).
//
// This header is C++17.
#ifndef AGENT_SPF_SHAREDMEMORY_SHAREDMEMORY_HPP
#define AGENT_SPF_SHAREDMEMORY_SHAREDMEMORY_HPP

#include <cstdint>
#include <memory>
#include <string>

#if defined(__GNUC__)
#define SPF_SHAREDMEMORY_API __attribute__((visibility("default")))
#else
#define SPF_SHAREDMEMORY_API
#endif

namespace agent::spf::sharedmemory {

// Returns "euid: " followed by the decimal effective user id of the calling process,
// e.g. "euid: 1000". Never throws except std::bad_alloc.
SPF_SHAREDMEMORY_API std::string getCurrentUserName();

// The segment name (without the leading "/") that SharedMemory::create, find and createOrFind
// open for `name` and `trustee`: 1 to 16 lowercase hexadecimal digits, the same in every process
// that passes the same name and trustee (with an empty trustee: the same effective user).
// Exported for tools that must name a segment without opening it.
SPF_SHAREDMEMORY_API std::string deriveSegmentName(const std::string& name,
                                                   const std::string& trustee);

// The System V key of the segment "/" + `name` (a name as the System V constructors take it,
// e.g. one from deriveSegmentName()): the key every process opens that segment under.
// Exported for tools that look a segment up in the system's table without opening it.
SPF_SHAREDMEMORY_API std::int32_t deriveSystemVKey(const std::string& name);

// A move-only handle to one shared-memory segment.
//
// A handle is *holding* (it owns an open back-end object) or *empty* (moved from, or built
// with a back-end choice that names no back end). A holding handle may still be *unattached*:
// a create that found the name taken, a find that found no segment, or a finder whose
// requested trustee differs from the segment's all construct successfully but map nothing
// (isAttached() is false, getPointer() is null) and hold no segment.
class SPF_SHAREDMEMORY_API SharedMemory {
public:
    // The back end a segment lives in. Passed as a 32-bit integer; any other value builds an
    // empty handle.
    enum ImplementationSpecifications : std::int32_t {
        Posix = 0,  // a POSIX shared-memory object (shm_open / mmap)
        SysV = 1,   // a System V shared-memory segment (shmget / shmat)
    };

    // The back-end interface; defined inside the library.
    class Impl;
    class PosixImpl;
    class SysVImpl;

    // Create-or-find: opens the segment "/" + `name` of `size` bytes, creating it when it does
    // not exist, grants `trustee` (a group name; empty for none) access when this process
    // created it, and maps it. A finder whose `trustee` is not empty stays unattached unless the
    // segment already trusts exactly that group.
    // Throws std::runtime_error on a failed system call, an inconsistent size or a found segment
    // this process may not trust (see above; no new attempt follows), and std::invalid_argument
    // when `trustee` names no group; then nothing is left behind.
    SharedMemory(const std::string& name, unsigned long size, const std::string& trustee = "",
                 ImplementationSpecifications spec = Posix);

    // Same as the constructor above. Exists so that a string literal as third argument means a
    // trustee instead of converting to the `bool create` of the next constructor. A null
    // `trustee` means no trustee.
    SharedMemory(const std::string& name, unsigned long size, const char* trustee,
                 ImplementationSpecifications spec = Posix);

    // Creates (`create` true) or only finds (`create` false) the segment "/" + `name`, then
    // assigns the trustee and maps it as above. A create whose name is taken, or a find whose
    // name has no segment, yields an unattached handle without an exception.
    // Throws as the create-or-find constructor.
    SharedMemory(const std::string& name, unsigned long size, bool create,
                 const std::string& trustee = "", ImplementationSpecifications spec = Posix);

    // Takes over `other`'s segment; `other` becomes empty. Nothing is unmapped or removed.
    SharedMemory(SharedMemory&& other) noexcept;

    // Takes over `other`'s segment (`other` becomes empty), then tears down the segment this
    // handle held before, if any (unmap, and removal when it was marked for deletion).
    // Self-assignment changes nothing.
    SharedMemory& operator=(SharedMemory&& other) noexcept;

    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // Unmaps the segment and removes it from the system when marked for deletion. Failures are
    // only logged; never throws. An empty handle does nothing.
    ~SharedMemory();

    // The queries and flag operations below require a holding handle; on an empty one they
    // throw std::logic_error.

    // Whether this process created the segment.
    bool isCreator() const;
    // The address the segment is mapped at in this process; null when unattached.
    void* getPointer() const;
    // Whether the segment is mapped (getPointer() is not null).
    bool isAttached() const;
    // Has the segment removed when this handle is destroyed, whatever the role. Never throws
    // on a holding handle.
    void markForDeletion();
    // Creator only: keeps the segment in the system after this handle is destroyed. On a
    // finder it logs and throws std::runtime_error and changes nothing.
    void makePersistent();
    // The group the system records for the segment, asked anew on each call; empty when the
    // group class of the segment's mode lacks any of rwx. Throws std::runtime_error when the
    // system or the group database cannot answer (also for an unattached handle).
    std::string getTrustee() const;
    // The user owning the segment, asked anew on each call; empty when the owner class of the
    // segment's mode lacks any of rwx. Throws std::runtime_error like getTrustee().
    std::string getOwner() const;
    // Backs every byte of the mapped segment with memory and maps it in now, so that no later
    // access through this handle faults for lack of memory or pays a first-touch page fault;
    // the contents do not change. Throws std::runtime_error when the memory is not there
    // (error=28: /dev/shm is full) or the handle is unattached; the handle stays as it was.
    void reserve();

    // The static functions do not use `name` as the segment name: they derive a 1-16 digit
    // hexadecimal name from `name` and `trustee` (or, with an empty trustee, the effective
    // user), so that processes of one user, or of one trustee group, meet by name alone.
    // They throw as the constructors do.

    // Create only; an unattached handle when the derived name is taken.
    static SharedMemory create(const std::string& name, unsigned long size,
                               const std::string& trustee = "",
                               ImplementationSpecifications spec = Posix);
    // Find only; an unattached handle when no segment has the derived name.
    static SharedMemory find(const std::string& name, unsigned long size,
                             const std::string& trustee = "",
                             ImplementationSpecifications spec = Posix);
    // Create-or-find under the derived name.
    static SharedMemory createOrFind(const std::string& name, unsigned long size,
                                     const std::string& trustee = "",
                                     ImplementationSpecifications spec = Posix);

private:
    const Impl& held() const;
    Impl& held();

    std::unique_ptr<Impl> impl;
};

}  // namespace agent::spf::sharedmemory

#endif  // AGENT_SPF_SHAREDMEMORY_SHAREDMEMORY_HPP
