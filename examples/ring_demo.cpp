// spf-ring-demo: a producer and a consumer process pass fixed-size records through a ring that
// lives in one shared-memory segment, guarded by a process-shared mutex and two condition
// variables placed in the segment itself.
//
//   spf-ring-demo [--sysv] [COUNT]
//
// Both processes open the segment with SharedMemory::createOrFind; whichever comes first creates
// it and sets the ring up, the other finds it. Every wait is bounded, so a process whose peer
// died gives up instead of hanging. Exits 0 only when all COUNT records (default 10) arrived
// intact and in order and no segment was left behind.
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <thread>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

using agent::spf::sharedmemory::SharedMemory;

namespace {

constexpr std::size_t kSlots = 4;       // fewer than the records, so the ring wraps
constexpr long kWaitSeconds = 5;        // longest a process waits for its peer to move
constexpr std::uint32_t kReady = 0x52494e47;

struct Record {
    std::uint32_t sequence;
    char text[52];
    std::uint32_t checksum;
};

// The segment's layout. A new segment is all zero bytes, so `ready` reads 0 until the creator
// has initialised the primitives.
struct Ring {
    std::uint32_t ready;
    pthread_mutex_t lock;
    pthread_cond_t notEmpty;
    pthread_cond_t notFull;
    std::uint64_t written;
    std::uint64_t read;
    std::uint32_t consumerDone;
    Record slots[kSlots];
};

std::uint32_t checksumOf(const Record& record) {
    std::uint32_t hash = 2166136261u ^ record.sequence;  // FNV-1a over the text
    for (const char c : record.text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    }
    return hash;
}

Record makeRecord(std::uint32_t sequence, std::uint32_t count) {
    Record record{};
    record.sequence = sequence;
    std::snprintf(record.text, sizeof record.text, "record %u of %u", sequence + 1, count);
    record.checksum = checksumOf(record);
    return record;
}

timespec deadline() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    now.tv_sec += kWaitSeconds;
    return now;
}

void initialise(Ring& ring) {
    pthread_mutexattr_t mutexAttributes;
    ::pthread_mutexattr_init(&mutexAttributes);
    ::pthread_mutexattr_setpshared(&mutexAttributes, PTHREAD_PROCESS_SHARED);
    // A peer that dies holding the lock must not leave the other blocked for good.
    ::pthread_mutexattr_setrobust(&mutexAttributes, PTHREAD_MUTEX_ROBUST);
    ::pthread_mutex_init(&ring.lock, &mutexAttributes);
    ::pthread_mutexattr_destroy(&mutexAttributes);

    pthread_condattr_t condAttributes;
    ::pthread_condattr_init(&condAttributes);
    ::pthread_condattr_setpshared(&condAttributes, PTHREAD_PROCESS_SHARED);
    ::pthread_condattr_setclock(&condAttributes, CLOCK_MONOTONIC);
    ::pthread_cond_init(&ring.notEmpty, &condAttributes);
    ::pthread_cond_init(&ring.notFull, &condAttributes);
    ::pthread_condattr_destroy(&condAttributes);

    std::atomic_ref<std::uint32_t>(ring.ready).store(kReady, std::memory_order_release);
}

bool awaitInitialised(Ring& ring) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kWaitSeconds);
    std::atomic_ref<std::uint32_t> ready(ring.ready);
    while (ready.load(std::memory_order_acquire) != kReady) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Holds the ring's lock; `ok` is false when the lock could not be had in time or its last
// holder died.
class Locked {
public:
    explicit Locked(Ring& ring) : ring_(ring) {
        const timespec until = deadline();
        const int result = ::pthread_mutex_clocklock(&ring_.lock, CLOCK_MONOTONIC, &until);
        if (result == EOWNERDEAD) ::pthread_mutex_consistent(&ring_.lock);
        held_ = result == 0 || result == EOWNERDEAD;
        ok = result == 0;
    }
    ~Locked() {
        if (held_) ::pthread_mutex_unlock(&ring_.lock);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

    // Waits on `condition` until `ready()` holds; false when the peer did not move in time.
    template <typename Predicate>
    bool await(pthread_cond_t& condition, Predicate ready) {
        const timespec until = deadline();
        while (ok && !ready()) {
            const int result = ::pthread_cond_timedwait(&condition, &ring_.lock, &until);
            if (result == EOWNERDEAD) {
                ::pthread_mutex_consistent(&ring_.lock);
                ok = false;
            } else if (result == ETIMEDOUT) {
                return ready();
            }
        }
        return ok;
    }

    bool ok = false;

private:
    Ring& ring_;
    bool held_ = false;
};

int produce(Ring& ring, std::uint32_t count) {
    for (std::uint32_t sequence = 0; sequence < count; ++sequence) {
        Locked locked(ring);
        if (!locked.await(ring.notFull, [&] { return ring.written - ring.read < kSlots; })) {
            std::printf("producer: the consumer stopped taking records at #%u\n", sequence + 1);
            return 1;
        }
        ring.slots[ring.written % kSlots] = makeRecord(sequence, count);
        ++ring.written;
        ::pthread_cond_signal(&ring.notEmpty);
    }
    // The creator's handle removes the segment, so the producer stays until the consumer is done.
    Locked locked(ring);
    if (!locked.await(ring.notFull, [&] { return ring.consumerDone != 0; })) {
        std::printf("producer: the consumer never confirmed the end\n");
        return 1;
    }
    std::printf("producer: sent %u records\n", count);
    return 0;
}

// Returns the number of records that arrived intact and in order.
std::uint32_t consume(Ring& ring, std::uint32_t count) {
    std::uint32_t intact = 0;
    for (std::uint32_t expected = 0; expected < count; ++expected) {
        Record record;
        {
            Locked locked(ring);
            if (!locked.await(ring.notEmpty, [&] { return ring.written > ring.read; })) {
                std::printf("consumer: no record #%u arrived in time\n", expected + 1);
                return intact;
            }
            record = ring.slots[ring.read % kSlots];
            ++ring.read;
            ::pthread_cond_signal(&ring.notFull);
        }
        const bool good = record.sequence == expected && record.checksum == checksumOf(record) &&
                          std::strcmp(record.text, makeRecord(expected, count).text) == 0;
        intact += good ? 1 : 0;
        std::printf("consumer: received \"%.*s\"%s\n", static_cast<int>(sizeof record.text),
                    record.text, good ? "" : "  <- damaged or out of order");
    }
    Locked locked(ring);
    ring.consumerDone = 1;
    ::pthread_cond_signal(&ring.notFull);
    return intact;
}

// The body of one child process; returns its exit code. The consumer reports how many records
// arrived intact through `report`.
int runRole(bool producer, const std::string& name, SharedMemory::ImplementationSpecifications spec,
            std::uint32_t count, int report) {
    const char* role = producer ? "producer" : "consumer";
    try {
        SharedMemory segment = SharedMemory::createOrFind(name, sizeof(Ring), "", spec);
        if (!segment.isAttached()) {
            std::printf("%s: the segment could not be attached\n", role);
            return 1;
        }
        std::printf("%s (pid %d): %s of the segment\n", role, static_cast<int>(::getpid()),
                    segment.isCreator() ? "creator" : "finder");
        std::fflush(stdout);
        Ring& ring = *static_cast<Ring*>(segment.getPointer());
        if (segment.isCreator()) {
            initialise(ring);
        } else if (!awaitInitialised(ring)) {
            std::printf("%s: the creator never set the ring up\n", role);
            return 1;
        }
        if (producer) return produce(ring, count);
        const std::uint32_t intact = consume(ring, count);
        if (::write(report, &intact, sizeof intact) != sizeof intact) return 1;
        return intact == count ? 0 : 1;
    } catch (const std::exception& error) {
        std::printf("%s: %s\n", role, error.what());
        return 1;
    }
}

pid_t spawn(bool producer, const std::string& name, SharedMemory::ImplementationSpecifications spec,
            std::uint32_t count, int report) {
    std::fflush(stdout);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int code = runRole(producer, name, spec, count, report);
        std::fflush(stdout);
        ::_exit(code);
    }
    return pid;
}

// Waits for `pid` until `until`, then kills it; returns its exit code, or -1 when it had to be
// killed or died of a signal.
int reap(pid_t pid, std::chrono::steady_clock::time_point until) {
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > until) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int usage(FILE* out, int code) {
    std::fprintf(out,
                 "usage: spf-ring-demo [--sysv] [COUNT]\n"
                 "  Passes COUNT records (default 10, at most 10000000) from a producer process to\n"
                 "  a consumer process through a ring in one shared-memory segment.\n"
                 "  --sysv   use a System V segment instead of a POSIX one\n");
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    // Line by line, so that the two processes' lines interleave as they happen, also in a pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    auto spec = SharedMemory::Posix;
    unsigned long count = 10;
    bool countSeen = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") return usage(stdout, 0);
        if (argument == "--sysv") {
            spec = SharedMemory::SysV;
            continue;
        }
        char* end = nullptr;
        errno = 0;
        count = std::strtoul(argv[i], &end, 10);
        if (countSeen || argument.empty() || argument[0] == '-' || *end != '\0' || errno != 0 ||
            count == 0 || count > 10000000) {
            std::fprintf(stderr, "spf-ring-demo: bad argument: %s\n", argv[i]);
            return usage(stderr, 2);
        }
        countSeen = true;
    }

    const std::string name = "spf-ring-demo-" + std::to_string(::getpid());
    std::printf("spf-ring-demo: %lu records through a ring of %zu slots in the %s segment /%s\n",
                count, kSlots, spec == SharedMemory::Posix ? "POSIX" : "System V",
                agent::spf::sharedmemory::deriveSegmentName(name, "").c_str());

    int report[2];
    if (::pipe(report) != 0) {
        std::perror("spf-ring-demo: pipe");
        return 1;
    }
    const auto n = static_cast<std::uint32_t>(count);
    const pid_t consumer = spawn(false, name, spec, n, report[1]);
    const pid_t producer = spawn(true, name, spec, n, report[1]);
    ::close(report[1]);
    if (consumer == -1 || producer == -1) {
        std::perror("spf-ring-demo: fork");
    }
    // Each child bounds its own waits; this only catches one that is stuck nonetheless.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30) +
                       std::chrono::microseconds(100) * count;
    const int producerCode = producer == -1 ? -1 : reap(producer, until);
    const int consumerCode = consumer == -1 ? -1 : reap(consumer, until);
    std::uint32_t intact = 0;
    if (::read(report[0], &intact, sizeof intact) != sizeof intact) intact = 0;
    ::close(report[0]);

    // A process killed before its teardown leaves its segment behind; take it away here.
    bool leftover = false;
    try {
        SharedMemory rest = SharedMemory::find(name, sizeof(Ring), "", spec);
        if (rest.isAttached()) {
            rest.markForDeletion();
            leftover = true;
        }
    } catch (const std::exception& error) {
        std::printf("spf-ring-demo: could not check for a leftover segment: %s\n", error.what());
        leftover = true;
    }

    const bool ok = producerCode == 0 && consumerCode == 0 && intact == n && !leftover;
    std::printf("summary: %u of %lu records arrived intact and in order; producer %s, consumer %s;"
                " %s\n",
                intact, count, producerCode == 0 ? "ok" : "failed",
                consumerCode == 0 ? "ok" : "failed",
                leftover ? "a leftover segment had to be removed" : "nothing left behind");
    return ok ? 0 : 1;
}
