// One question: how close does a cycle through the library come to the system calls it must
// make, and to Boost.Interprocess? A cycle opens a 4 KiB segment, maps it and lets it go; a
// creator also removes it, a finder opens one that stays for the run. Both back ends, with and
// without the trustee group "staff"; beside them the name hash against std::hash, and the heap
// allocations of every cycle. And what reserve() buys: the first write pass over a 256 MiB
// segment with and without it, and what reserving costs against the page faults it replaces.
//
// One interleaved run: every round runs one batch of each case, in a new random order, and the
// table shows the medians over the rounds, so a moment of someone else's load on a shared
// machine touches one batch of every case alike rather than all batches of one.
//
// Usage: spf_bench [--rounds=N]
#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/xsi_shared_memory.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <functional>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "core/Hash.hpp"

namespace { std::uint64_t allocations = 0; }  // the program has one thread

// Every module of the process, the shared library included, binds to these. Not inlined, so
// that the compiler sees new and delete as the pair they are rather than as malloc and free.
__attribute__((noinline)) void* operator new(std::size_t size) {
    ++allocations;
    if (void* block = std::malloc(size != 0 ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* block) noexcept { std::free(block); }
__attribute__((noinline)) void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {

namespace bip = boost::interprocess;
namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;

constexpr unsigned long kSize = 4096;

// The value counts as used, so that the compiler computes it.
template <typename T>
void keep(const T& value) { asm volatile("" : : "r,m"(value) : "memory"); }

// ---- Names: unique to this process, remembered so that the end of the run proves them gone ----

std::vector<std::string> names;  // as the library takes them, without the leading "/"

std::string newName(const std::string& tag) {
    names.push_back("spfb" + std::to_string(::getpid()) + tag);
    return names.back();
}

int sweep() {
    int left = 0;
    for (const std::string& name : names) {
        left += ::shm_unlink(("/" + name).c_str()) == 0;
        const int id = ::shmget(sm::deriveSystemVKey(name), 0, 0);
        left += id != -1 && ::shmctl(id, IPC_RMID, nullptr) == 0;
    }
    return left;
}

// ---- Raw: the calls the library must make for the same work, written out by hand ----

bool groupIdOf(const std::string& group, gid_t& gid) {
    char buffer[2048];
    struct group entry;
    struct group* found = nullptr;
    const bool ok = ::getgrnam_r(group.c_str(), &entry, buffer, sizeof buffer, &found) == 0 &&
                    found != nullptr;
    gid = ok ? entry.gr_gid : 0;
    return ok;
}

bool groupNameIs(gid_t gid, const std::string& expected) {
    char buffer[2048];
    struct group entry;
    struct group* found = nullptr;
    return ::getgrgid_r(gid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
           expected == entry.gr_name;
}

// A creator that names a group hands the segment to it; a finder that names one checks that the
// segment trusts exactly that group; a finder that names none still asks for the trustee.
bool posixTrustee(int fd, const std::string& group, bool creator) {
    struct stat status;
    gid_t gid;
    if (group.empty()) {
        return creator || ::fstat(fd, &status) == 0;
    }
    if (!groupIdOf(group, gid)) {
        return false;
    }
    if (!creator) {
        return ::fstat(fd, &status) == 0 && (status.st_mode & S_IRWXG) == S_IRWXG &&
               groupNameIs(status.st_gid, group);
    }
    return ::fchown(fd, ::getuid(), gid) == 0 && ::fstat(fd, &status) == 0 &&
           ::fchmod(fd, status.st_mode | S_IRWXG) == 0;
}

// `locked` adds what the library does around sizing a new object: flock around the size check,
// the ftruncate and the second check.
bool rawPosix(const std::string& name, const std::string& group, bool creator, bool locked) {
    const int fd = ::shm_open(name.c_str(), creator ? O_RDWR | O_CREAT | O_EXCL : O_RDWR, S_IRWXU);
    if (fd == -1) {
        return false;
    }
    struct stat status;
    bool ok = posixTrustee(fd, group, creator);
    if (locked) {
        ::flock(fd, LOCK_EX);
    }
    ok = ok && ::fstat(fd, &status) == 0 &&
         (status.st_size != 0 ||
          (creator && ::ftruncate(fd, kSize) == 0 && ::fstat(fd, &status) == 0)) &&
         static_cast<unsigned long>(status.st_size) >= kSize;
    if (locked) {
        ::flock(fd, LOCK_UN);
    }
    void* address = ok ? ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    ok = address != MAP_FAILED;
    if (ok) {
        ::munmap(address, kSize);
    }
    ::close(fd);
    if (creator) {
        ::shm_unlink(name.c_str());
    }
    return ok;
}

bool sysvTrustee(int id, const std::string& group, bool creator) {
    shmid_ds status;
    gid_t gid;
    if (group.empty()) {
        return creator || ::shmctl(id, IPC_STAT, &status) == 0;
    }
    if (!groupIdOf(group, gid) || ::shmctl(id, IPC_STAT, &status) != 0) {
        return false;
    }
    if (!creator) {
        return (status.shm_perm.mode & S_IRWXG) == S_IRWXG && groupNameIs(status.shm_perm.gid, group);
    }
    status.shm_perm.gid = gid;
    status.shm_perm.mode |= S_IRWXG;
    return ::shmctl(id, IPC_SET, &status) == 0;
}

bool rawSysV(key_t key, const std::string& group, bool creator) {
    const int id = ::shmget(key, kSize, creator ? IPC_CREAT | IPC_EXCL | S_IRWXU : S_IRWXU);
    if (id == -1) {
        return false;
    }
    void* address = sysvTrustee(id, group, creator) ? ::shmat(id, nullptr, 0) : reinterpret_cast<void*>(-1);
    const bool ok = address != reinterpret_cast<void*>(-1);
    if (ok) {
        ::shmdt(address);
    }
    if (creator) {
        ::shmctl(id, IPC_RMID, nullptr);
    }
    return ok;
}

// ---- The cases ----

struct Case {
    Case(std::string name, std::function<bool()> cycle, int units)
        : name(std::move(name)), cycle(std::move(cycle)), units(units) {}

    std::string name;
    std::function<bool()> cycle;  // false: the cycle did not do its work
    std::function<void()> prepare, release;  // around each untimed call of a single-call batch
    int units = 1;                // operations per call of `cycle`
    long batch = 1;               // calls per timed batch
    std::vector<double> cpu, wall;
    std::uint64_t allocated = 0, calls = 0;
};

std::vector<Case> cases;
std::vector<SharedMemory> kept;

void add(const std::string& name, std::function<bool()> cycle, int units = 1) {
    cases.emplace_back(name, std::move(cycle), units);
}

void addCycles(SharedMemory::ImplementationSpecifications spec, const std::string& group) {
    const bool posix = spec == SharedMemory::Posix;
    const std::string f = (posix ? "posix" : "sysv") + (group.empty() ? "" : "+" + group) + " ";
    const std::string tag = std::string(posix ? "p" : "s") + (group.empty() ? "" : "g");
    // Raw, raw + flock, library and Boost each have their own creator's and finder's names.
    const std::string rc = newName(tag + "rc"), kc = newName(tag + "kc"), lc = newName(tag + "lc");
    const std::string bc = newName(tag + "bc"), rf = newName(tag + "rf"), lf = newName(tag + "lf");
    const std::string bf = newName(tag + "bf");
    for (const std::string& name : {rf, lf, bf}) {  // the segments the finders open
        kept.emplace_back(name, kSize, true, group, spec);
    }
    if (posix) {
        const std::string creator = "/" + rc, locked = "/" + kc, finder = "/" + rf;
        add(f + "creator raw", [=] { return rawPosix(creator, group, true, false); });
        add(f + "creator raw + flock", [=] { return rawPosix(locked, group, true, true); });
        add(f + "finder  raw", [=] { return rawPosix(finder, group, false, false); });
    } else {
        const key_t creatorKey = sm::deriveSystemVKey(rc), finderKey = sm::deriveSystemVKey(rf);
        add(f + "creator raw", [=] { return rawSysV(creatorKey, group, true); });
        add(f + "finder  raw", [=] { return rawSysV(finderKey, group, false); });
    }
    add(f + "creator library", [=] {
        SharedMemory shm(lc, kSize, group, spec);
        return shm.isCreator() && shm.isAttached();
    });
    add(f + "finder  library", [=] {
        SharedMemory shm(lf, kSize, false, group, spec);
        return !shm.isCreator() && shm.isAttached();
    });
    if (!group.empty()) {
        return;  // Boost.Interprocess knows no trustee group
    }
    if (posix) {
        add(f + "creator Boost.Interprocess", [=] {
            {
                bip::shared_memory_object shm(bip::create_only, bc.c_str(), bip::read_write,
                                              bip::permissions(0700));
                shm.truncate(kSize);
                bip::mapped_region region(shm, bip::read_write);
                keep(region.get_address());
            }
            return bip::shared_memory_object::remove(bc.c_str());
        });
        add(f + "finder  Boost.Interprocess", [=] {
            bip::shared_memory_object shm(bip::open_only, bf.c_str(), bip::read_write);
            bip::mapped_region region(shm, bip::read_write);
            return region.get_size() >= kSize;
        });
    } else {
        const bip::xsi_key creatorKey(sm::deriveSystemVKey(bc)), finderKey(sm::deriveSystemVKey(bf));
        add(f + "creator Boost.Interprocess", [=] {
            bip::xsi_shared_memory shm(bip::create_only, creatorKey, kSize, bip::permissions(0700));
            {
                bip::mapped_region region(shm, bip::read_write);
                keep(region.get_address());
            }
            return bip::xsi_shared_memory::remove(shm.get_shmid());
        });
        add(f + "finder  Boost.Interprocess", [=] {
            bip::xsi_shared_memory shm(bip::open_only, finderKey);
            bip::mapped_region region(shm, bip::read_write);
            return region.get_size() >= kSize;
        });
    }
}

void addHashes() {
    constexpr int kPerCall = 64;  // so that the call through std::function weighs little
    for (std::size_t length : {8, 64, 1024}) {
        std::string text(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            text[i] = static_cast<char>('a' + (i * 7) % 26);
        }
        auto addHash = [&](const char* label, auto hash) {
            add(label + std::to_string(length) + " B", [text, hash] {
                for (int i = 0; i < kPerCall; ++i) {
                    keep(text);
                    keep(hash(text));
                }
                return true;
            }, kPerCall);
        };
        addHash("hashString ", [](const std::string& t) { return sm::hashString(t); });
        addHash("std::hash ", std::hash<std::string>{});
    }
}

// ---- Memory: a large segment's first write pass, with and without reserve() ----

constexpr unsigned long kLargeSize = 256ul << 20;
std::optional<SharedMemory> large;  // the segment of the memory case that runs

// One write to every page, as a program's first use of a buffer touches it.
bool writePass() {
    auto* const bytes = static_cast<volatile char*>(large->getPointer());
    for (unsigned long offset = 0; offset < kLargeSize; offset += 4096) {
        bytes[offset] = 1;
    }
    return true;
}

// Each call measures one new segment, made and removed outside the timing; its memory is
// allocated either by the faults of the pass or by reserve().
void addMemoryCases() {
    // Where /dev/shm is small (a container's is 64 MiB), the pass without reserve() would die of
    // SIGBUS.
    struct statvfs shm;
    if (::statvfs("/dev/shm", &shm) != 0 || shm.f_bavail * shm.f_frsize < 2 * kLargeSize) {
        std::printf("/dev/shm has less than 512 MiB free: the 256 MiB cases are left out\n\n");
        return;
    }
    const std::string name = newName("m");
    const auto open = [name] { large.emplace(name, kLargeSize, true, "", SharedMemory::Posix); };
    const auto reserved = [open] { open(), large->reserve(); };
    const auto close = [] { large.reset(); };
    add("256 MiB first write pass", writePass);
    cases.back().prepare = open, cases.back().release = close;
    add("256 MiB after reserve()", writePass);
    cases.back().prepare = reserved, cases.back().release = close;
    add("256 MiB reserve() + first pass", [] { large->reserve(); return writePass(); });
    cases.back().prepare = open, cases.back().release = close;
}

// ---- The run ----

double now(clockid_t clock) {
    timespec t;
    ::clock_gettime(clock, &t);
    return t.tv_sec * 1e9 + t.tv_nsec;
}

// One batch of `c`, timed; false when a cycle did not do its work.
bool runBatch(Case& c) {
    if (c.prepare) {
        c.prepare();
    }
    const std::uint64_t allocatedBefore = allocations;
    const double cpu = now(CLOCK_PROCESS_CPUTIME_ID), wall = now(CLOCK_MONOTONIC);
    bool ok = true;
    for (long i = 0; i < c.batch; ++i) {
        ok &= c.cycle();
    }
    const double cpuTaken = now(CLOCK_PROCESS_CPUTIME_ID) - cpu, wallTaken = now(CLOCK_MONOTONIC) - wall;
    c.allocated += allocations - allocatedBefore;  // before the push_backs below allocate
    c.calls += c.batch;
    c.cpu.push_back(cpuTaken / static_cast<double>(c.batch * c.units));
    c.wall.push_back(wallTaken / static_cast<double>(c.batch * c.units));
    if (c.release) {
        c.release();
    }
    return ok;
}

// The value at `fraction` of the sorted values: 0.5 is the median.
double quantile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[static_cast<std::size_t>(fraction * (values.size() - 1) + 0.5)];
}

// Prints the median CPU time of case `a` over that of case `b`; false when above `target` (when
// below it, for a target `atLeast`).
bool ratio(const std::string& a, const std::string& b, double target, bool atLeast = false) {
    auto find = [](const std::string& name) {
        return std::find_if(cases.begin(), cases.end(), [&](const Case& c) { return c.name == name; });
    };
    const auto x = find(a), y = find(b);
    if (x == cases.end() || y == cases.end() || x->cpu.empty() || y->cpu.empty()) {
        return true;
    }
    const double value = quantile(x->cpu, 0.5) / quantile(y->cpu, 0.5);
    std::printf("%-58s %6.3f", (a + " / " + b).c_str(), value);
    const bool met = atLeast ? value >= target : value <= target;
    if (target > 0) {
        std::printf("   %s %.2f  %s", atLeast ? ">=" : "<=", target, met ? "met" : "MISSED");
    }
    std::printf("\n");
    return target <= 0 || met;
}

}  // namespace

int main(int argc, char** argv) {
    long rounds = 40;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rounds=", 9) == 0 && std::atol(argv[i] + 9) > 0) {
            rounds = std::atol(argv[i] + 9);
        } else {
            std::fprintf(stderr, "usage: spf_bench [--rounds=N]   (default 40 rounds of 10 ms per case)\n");
            return std::strcmp(argv[i], "--help") == 0 ? 0 : 2;
        }
    }
    int status = 0;
    try {
        for (auto spec : {SharedMemory::Posix, SharedMemory::SysV}) {
            addCycles(spec, "");
            addCycles(spec, "staff");
        }
        addHashes();
        addMemoryCases();
        // A first call outside the measurement (it may set up process-wide state, such as the
        // group database's), then batches of about 10 ms.
        std::vector<Case*> order;
        for (Case& c : cases) {
            if (c.prepare) {  // a call takes long enough on its own
                order.push_back(&c);
                continue;
            }
            const double start = now(CLOCK_MONOTONIC);
            bool ok = true;
            for (int i = 0; i < 16; ++i) {
                ok &= c.cycle();
            }
            c.batch = std::max(1L, static_cast<long>(16 * 10e6 / (now(CLOCK_MONOTONIC) - start)));
            if (!ok) {
                throw std::runtime_error(c.name + ": the cycle did not complete");
            }
            order.push_back(&c);
        }
        std::mt19937 random(20261123);
        for (long round = 0; round < rounds; ++round) {
            std::shuffle(order.begin(), order.end(), random);
            for (Case* c : order) {
                if (!runBatch(*c)) {
                    throw std::runtime_error(c->name + ": the cycle did not complete");
                }
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "spf_bench: %s\n", error.what());
        status = 1;
    }

    // spread: the middle half of the rounds' CPU times, relative to their median.
    std::printf("%-36s %11s %11s %7s %7s\n", "case (ns per operation)", "cpu", "wall", "spread", "new/op");
    for (const Case& c : cases) {
        if (!c.cpu.empty()) {
            const double median = quantile(c.cpu, 0.5);
            std::printf("%-36s %11.1f %11.1f %6.1f%% %7.2f\n", c.name.c_str(), median, quantile(c.wall, 0.5),
                        100 * (quantile(c.cpu, 0.75) - quantile(c.cpu, 0.25)) / median,
                        static_cast<double>(c.allocated) / static_cast<double>(c.calls * c.units));
        }
    }
    std::printf("\nratios of median CPU time per operation\n");
    bool met = true;
    for (const char* f : {"posix ", "posix+staff ", "sysv ", "sysv+staff "}) {
        for (const char* role : {"creator ", "finder  "}) {
            const std::string base = std::string(f) + role;
            met &= ratio(base + "library", base + "raw", 1.10);
            met &= ratio(base + "library", base + "Boost.Interprocess", 1.00);
        }
    }
    for (const char* f : {"posix ", "posix+staff "}) {
        ratio(std::string(f) + "creator raw + flock", std::string(f) + "creator raw", 0);
    }
    for (const char* length : {" 8 B", " 64 B", " 1024 B"}) {
        met &= ratio(std::string("hashString") + length, std::string("std::hash") + length, 1.25);
    }
    met &= ratio("256 MiB first write pass", "256 MiB after reserve()", 20, true);
    met &= ratio("256 MiB reserve() + first pass", "256 MiB first write pass", 1.20);
    std::printf("targets: %s\n", met ? "all met" : "not all met");

    kept.clear();
    large.reset();
    if (const int left = sweep(); left != 0) {
        std::fprintf(stderr, "spf_bench: %d segments were left behind and have been removed\n", left);
        status = 1;
    }
    return status;
}
