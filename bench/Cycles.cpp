// What a segment costs through the library, beside the same system calls written out by hand
// ("raw") and beside Boost.Interprocess, the alternative a user would otherwise pick. Every
// cycle opens, maps and closes a 4 KiB segment; the creator cycles also remove it.
//
// Usage: spf_bench [--hash-rows=FILE] [benchmark flags]. FILE holds the rows that spf_bench_hash
// measured; they join this program's table, and the hash ratio is computed from them.
// spf_bench --profile=CASE [--cycles=N] runs only N cycles of one case, for a profiler.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Allocations.hpp"
#include "Summary.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace {

namespace bip = boost::interprocess;
namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;

constexpr unsigned long kSize = 4096;
const std::string kGroup = "staff";
const std::string kNoGroup;

// ---- Names: unique per process, remembered so that the end of the run can prove them gone ----

std::vector<std::string> posixNames;
std::vector<key_t> sysvKeys;

// The key the library's System V back end derives: the low 32 bits of the hash of "/" + name,
// which is the function libstdc++'s std::hash<std::string> computes.
key_t keyOf(const std::string& nameWithSlash) {
    return static_cast<key_t>(static_cast<std::uint32_t>(std::hash<std::string>{}(nameWithSlash)));
}

// A name without the leading "/", as the library takes it: "spfb", the pid, a tag. Both the
// POSIX object and the System V key it would lead to are remembered.
std::string benchName(const std::string& tag) {
    char text[64];
    std::snprintf(text, sizeof text, "spfb%07ld%s", static_cast<long>(::getpid()), tag.c_str());
    posixNames.push_back(std::string("/") + text);
    sysvKeys.push_back(keyOf(posixNames.back()));
    return text;
}

// The name the library's static functions open for `name` and `trustee`, remembered likewise.
std::string derivedName(const std::string& name, const std::string& trustee) {
    const std::string derived = sm::deriveSegmentName(name, trustee);
    posixNames.push_back("/" + derived);
    sysvKeys.push_back(keyOf(posixNames.back()));
    return derived;
}

// Removes whatever is still there; returns how many segments that was.
int sweep() {
    int left = 0;
    for (const std::string& name : posixNames) {
        if (::shm_unlink(name.c_str()) == 0) {
            ++left;
        }
    }
    for (key_t key : sysvKeys) {
        const int id = ::shmget(key, 0, 0);
        if (id != -1 && ::shmctl(id, IPC_RMID, nullptr) == 0) {
            ++left;
        }
    }
    return left;
}

// ---- Raw: the system calls the library is prescribed to make, written out directly ----

bool groupIdOf(const std::string& group, gid_t& gid) {
    char buffer[2048];
    struct group entry;
    struct group* found = nullptr;
    if (::getgrnam_r(group.c_str(), &entry, buffer, sizeof buffer, &found) != 0 ||
        found == nullptr) {
        return false;
    }
    gid = entry.gr_gid;
    return true;
}

bool groupNameIs(gid_t gid, const std::string& expected) {
    char buffer[2048];
    struct group entry;
    struct group* found = nullptr;
    return ::getgrgid_r(gid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
           expected == entry.gr_name;
}

// A creator that names a group hands the segment to it; a finder that names one checks that
// the segment trusts exactly that group; a finder that names none still asks for the trustee.
bool posixTrustee(int fd, const std::string& group, bool creator) {
    struct stat status;
    if (group.empty()) {
        return creator || ::fstat(fd, &status) == 0;
    }
    gid_t gid;
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

// `serialised` adds what the library does around sizing the new object: an exclusive flock
// around the size check, the ftruncate and the second check.
// The end of every raw POSIX cycle: map the object if all went well so far, unmap, close.
bool mapUnmapAndClose(int fd, bool ok) {
    void* address =
        ok ? ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    ok = address != MAP_FAILED;
    if (ok) {
        ::munmap(address, kSize);
    }
    ::close(fd);
    return ok;
}

bool rawPosixCreator(const std::string& name, const std::string& group, bool serialised) {
    const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, S_IRWXU);
    if (fd == -1) {
        return false;
    }
    bool ok = posixTrustee(fd, group, true);
    if (serialised) {
        ::flock(fd, LOCK_EX);
    }
    struct stat status;
    ok = ok && ::fstat(fd, &status) == 0 &&
         (status.st_size != 0 || (::ftruncate(fd, kSize) == 0 && ::fstat(fd, &status) == 0)) &&
         static_cast<unsigned long>(status.st_size) >= kSize;
    if (serialised) {
        ::flock(fd, LOCK_UN);
    }
    ok = mapUnmapAndClose(fd, ok);
    ::shm_unlink(name.c_str());
    return ok;
}

bool rawPosixFinder(const std::string& name, const std::string& group) {
    const int fd = ::shm_open(name.c_str(), O_RDWR, S_IRWXU);
    if (fd == -1) {
        return false;
    }
    struct stat status;
    bool ok = posixTrustee(fd, group, false) && ::fstat(fd, &status) == 0 &&
              static_cast<unsigned long>(status.st_size) >= kSize;
    return mapUnmapAndClose(fd, ok);
}

bool sysvTrustee(int id, const std::string& group, bool creator) {
    shmid_ds status;
    if (group.empty()) {
        return creator || ::shmctl(id, IPC_STAT, &status) == 0;
    }
    gid_t gid;
    if (!groupIdOf(group, gid) || ::shmctl(id, IPC_STAT, &status) != 0) {
        return false;
    }
    if (!creator) {
        return (status.shm_perm.mode & S_IRWXG) == S_IRWXG &&
               groupNameIs(status.shm_perm.gid, group);
    }
    status.shm_perm.gid = gid;
    status.shm_perm.mode |= S_IRWXG;
    return ::shmctl(id, IPC_SET, &status) == 0;
}

// A creator makes and removes the segment; a finder opens the one kept alive for the run.
bool rawSysVCycle(key_t key, const std::string& group, bool create) {
    const int id = ::shmget(key, kSize, create ? IPC_CREAT | IPC_EXCL | S_IRWXU : S_IRWXU);
    if (id == -1) {
        return false;
    }
    void* address =
        sysvTrustee(id, group, create) ? ::shmat(id, nullptr, 0) : reinterpret_cast<void*>(-1);
    const bool ok = address != reinterpret_cast<void*>(-1);
    if (ok) {
        ::shmdt(address);
    }
    if (create) {
        ::shmctl(id, IPC_RMID, nullptr);
    }
    return ok;
}

// ---- The cases: one cycle each, plus what must exist while the cycles run ----

struct Case {
    std::string name;
    std::function<std::shared_ptr<void>()> prepare;  // kept alive while the cycles run
    std::function<bool()> cycle;                     // false: the cycle did not do its work
    double bytes = 0;                                // for throughput rows
    bool countAllocations = true;
};

std::vector<Case> cases;

template <typename T>
std::shared_ptr<void> keep(T&& value) {
    return std::make_shared<std::decay_t<T>>(std::forward<T>(value));
}

const char* backEndName(SharedMemory::ImplementationSpecifications spec) {
    return spec == SharedMemory::Posix ? "posix" : "sysv";
}

// Back end and trustee, padded so that the table's columns of roles line up.
std::string family(const std::string& backEnd, const std::string& group = kNoGroup) {
    std::string text = group.empty() ? backEnd : backEnd + "+" + group;
    text.resize(std::max<std::size_t>(text.size(), 12), ' ');
    return text;
}

void addCycles(SharedMemory::ImplementationSpecifications spec, const std::string& group) {
    const std::string family = ::family(backEndName(spec), group);
    const std::string tag =
        std::string(spec == SharedMemory::Posix ? "p" : "s") + (group.empty() ? "" : "g");

    // Creator: create-or-find, map, then unmap and remove at destruction.
    if (spec == SharedMemory::Posix) {
        const std::string raw = "/" + benchName(tag + "rc");
        cases.push_back(
            {family + "creator  raw", nullptr, [=] { return rawPosixCreator(raw, group, false); }});
        if (group.empty()) {
            const std::string locked = "/" + benchName(tag + "lc");
            cases.push_back({family + "creator  raw + flock", nullptr,
                             [=] { return rawPosixCreator(locked, group, true); }});
        }
    } else {
        const key_t raw = keyOf("/" + benchName(tag + "rc"));
        cases.push_back(
            {family + "creator  raw", nullptr, [=] { return rawSysVCycle(raw, group, true); }});
    }
    const std::string creator = benchName(tag + "c");
    cases.push_back({family + "creator  library", nullptr, [=] {
                         SharedMemory shm(creator, kSize, group, spec);
                         return shm.isCreator() && shm.isAttached();
                     }});
    const std::string derivedCreator = benchName(tag + "dc");
    derivedName(derivedCreator, group);
    cases.push_back({family + "creator  library, derived name", nullptr, [=] {
                         SharedMemory shm =
                             SharedMemory::createOrFind(derivedCreator, kSize, group, spec);
                         return shm.isCreator() && shm.isAttached();
                     }});
    if (spec == SharedMemory::Posix && group.empty()) {
        const std::string boost = benchName(tag + "bc");
        cases.push_back({family + "creator  Boost.Interprocess", nullptr, [=] {
                             {
                                 bip::shared_memory_object shm(bip::create_only, boost.c_str(),
                                                               bip::read_write,
                                                               bip::permissions(0700));
                                 shm.truncate(kSize);
                                 bip::mapped_region region(shm, bip::read_write);
                                 benchmark::DoNotOptimize(region.get_address());
                             }
                             return bip::shared_memory_object::remove(boost.c_str());
                         }});
    }

    // Finder: open an existing segment, map it, unmap and close it at destruction.
    if (spec == SharedMemory::Posix) {
        const std::string raw = benchName(tag + "rf");
        cases.push_back({family + "finder   raw",
                         [=] { return keep(SharedMemory(raw, kSize, true, group, spec)); },
                         [=, slashed = "/" + raw] { return rawPosixFinder(slashed, group); }});
    } else {
        const std::string raw = benchName(tag + "rf");
        cases.push_back({family + "finder   raw",
                         [=] { return keep(SharedMemory(raw, kSize, true, group, spec)); },
                         [=, key = keyOf("/" + raw)] { return rawSysVCycle(key, group, false); }});
    }
    const std::string finder = benchName(tag + "f");
    cases.push_back({family + "finder   library",
                     [=] { return keep(SharedMemory(finder, kSize, true, group, spec)); },
                     [=] {
                         SharedMemory shm(finder, kSize, false, group, spec);
                         return !shm.isCreator() && shm.isAttached();
                     }});
    const std::string derivedFinder = benchName(tag + "df");
    derivedName(derivedFinder, group);
    cases.push_back({family + "finder   library, derived name",
                     [=] { return keep(SharedMemory::create(derivedFinder, kSize, group, spec)); },
                     [=] {
                         SharedMemory shm = SharedMemory::find(derivedFinder, kSize, group, spec);
                         return !shm.isCreator() && shm.isAttached();
                     }});
    if (spec == SharedMemory::Posix && group.empty()) {
        const std::string boost = benchName(tag + "bf");
        cases.push_back({family + "finder   Boost.Interprocess",
                         [=] { return keep(SharedMemory(boost, kSize, true, group, spec)); },
                         [=] {
                             bip::shared_memory_object shm(bip::open_only, boost.c_str(),
                                                           bip::read_write);
                             bip::mapped_region region(shm, bip::read_write);
                             benchmark::DoNotOptimize(region.get_address());
                             return region.get_size() >= kSize;
                         }});
    }
}

void addQueries(SharedMemory::ImplementationSpecifications spec) {
    const std::string family = ::family(backEndName(spec));
    const std::string owned = benchName(std::string(spec == SharedMemory::Posix ? "p" : "s") + "q");
    auto holder = std::make_shared<std::unique_ptr<SharedMemory>>();
    auto prepare = [=] {
        *holder = std::make_unique<SharedMemory>(owned, kSize, true, kGroup, spec);
        return std::shared_ptr<void>(holder.get(), [holder](void*) { holder->reset(); });
    };
    cases.push_back(
        {family + "getOwner()", prepare, [=] { return !(*holder)->getOwner().empty(); }});
    cases.push_back(
        {family + "getTrustee()", prepare, [=] { return (*holder)->getTrustee() == kGroup; }});
}

void addNameDerivation() {
    for (std::size_t length : {8, 64, 1024}) {
        std::string name(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            name[i] = static_cast<char>('a' + (i * 7) % 26);
        }
        cases.push_back({"deriveSegmentName " + std::to_string(length) + " B", nullptr,
                         [name] {
                             std::string derived = sm::deriveSegmentName(name, kNoGroup);
                             benchmark::DoNotOptimize(derived.data());
                             return !derived.empty();
                         },
                         static_cast<double>(length)});
    }
}

// Operator new calls per cycle, counted over cycles that follow a first one (which may set up
// process-wide state such as the group database's).
double allocationsPerCycle(const Case& c) {
    std::shared_ptr<void> kept = c.prepare ? c.prepare() : nullptr;
    if (!c.cycle()) {
        return -1;
    }
    constexpr int kCycles = 64;
    const std::uint64_t before = spf_bench::allocationCount();
    for (int i = 0; i < kCycles; ++i) {
        c.cycle();
    }
    return static_cast<double>(spf_bench::allocationCount() - before) / kCycles;
}

int failedCases = 0;

void runCase(benchmark::State& state, const Case& c) {
    try {
        std::shared_ptr<void> kept = c.prepare ? c.prepare() : nullptr;
        for (auto _ : state) {
            if (!c.cycle()) {
                state.SkipWithError("the cycle did not complete");
                ++failedCases;
                break;
            }
        }
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
        ++failedCases;
    }
    if (c.bytes > 0) {
        state.counters["bytes"] = c.bytes;
    }
}

const spf_bench::Row* find(const std::vector<spf_bench::Row>& rows, const std::string& name) {
    for (const spf_bench::Row& row : rows) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

// Prints the ratio of the CPU medians of `prefix + numerator` and `prefix + denominator`, or,
// for throughput rows, the ratio of their rates. Returns false when `target` (if any) is missed.
bool printRatio(const std::vector<spf_bench::Row>& rows, const std::string& prefix,
                const std::string& numerator, const std::string& denominator, double target,
                bool throughput = false) {
    const spf_bench::Row* a = find(rows, prefix + numerator);
    const spf_bench::Row* b = find(rows, prefix + denominator);
    const std::string label = prefix + numerator + " / " + denominator;
    if (a == nullptr || b == nullptr || a->cpuNs <= 0 || b->cpuNs <= 0) {
        std::printf("%-56s %8s\n", label.c_str(), "n/a");
        return target <= 0;
    }
    const double ratio = throughput ? b->cpuNs / a->cpuNs : a->cpuNs / b->cpuNs;
    if (target <= 0) {
        std::printf("%-56s %8.3f\n", label.c_str(), ratio);
        return true;
    }
    const bool met = throughput ? ratio >= target : ratio <= target;
    std::printf("%-56s %8.3f   %s %.2f  %s\n", label.c_str(), ratio,
                throughput ? ">=" : "<=", target, met ? "met" : "MISSED");
    return met;
}

std::string collapsed(const std::string& text) {
    std::string result;
    for (char c : text) {
        if (c != ' ' || (!result.empty() && result.back() != ' ')) {
            result.push_back(c);
        }
    }
    return result;
}

// Runs the cycle of the case named `name` (blanks collapsed) `cycles` times and nothing else,
// for a profiler (valgrind --tool=callgrind, perf record) to look at.
int profile(const std::string& name, long cycles) {
    for (const Case& c : cases) {
        if (collapsed(c.name) == collapsed(name)) {
            int status = 0;
            {
                std::shared_ptr<void> kept = c.prepare ? c.prepare() : nullptr;
                for (long i = 0; i < cycles; ++i) {
                    if (!c.cycle()) {
                        status = 1;
                        break;
                    }
                }
            }
            return sweep() == 0 ? status : 1;
        }
    }
    std::fprintf(stderr, "no case is named \"%s\"; the cases are:\n", name.c_str());
    for (const Case& c : cases) {
        std::fprintf(stderr, "  %s\n", collapsed(c.name).c_str());
    }
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string hashRows;
    std::string profiled;
    std::string cycles = "1000";
    if (!spf_bench::initialize(argc, argv, {{"--hash-rows=", &hashRows},
                                            {"--profile=", &profiled},
                                            {"--cycles=", &cycles}})) {
        return 2;
    }

    for (auto spec : {SharedMemory::Posix, SharedMemory::SysV}) {
        addCycles(spec, kNoGroup);
        addCycles(spec, kGroup);
        addQueries(spec);
    }
    addNameDerivation();
    if (!profiled.empty()) {
        return profile(profiled, std::atol(cycles.c_str()));
    }

    std::map<std::string, double> allocations;
    int status = 0;
    try {
        for (const Case& c : cases) {
            allocations[c.name] = allocationsPerCycle(c);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "counting allocations failed: %s\n", error.what());
        status = 1;
    }
    for (const Case& c : cases) {
        benchmark::RegisterBenchmark(c.name.c_str(),
                                     [&c](benchmark::State& state) { runCase(state, c); });
    }

    spf_bench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    std::vector<spf_bench::Row> rows = collector.rows();
    if (failedCases != 0) {
        std::fprintf(stderr, "%d benchmark runs failed\n", failedCases);
        status = 1;
    }
    for (spf_bench::Row& row : rows) {
        if (auto counted = allocations.find(row.name); counted != allocations.end()) {
            row.allocations = counted->second;
        }
    }
    if (!hashRows.empty()) {
        std::ifstream in(hashRows);
        for (spf_bench::Row& row : spf_bench::readRows(in)) {
            rows.push_back(std::move(row));
        }
    }

    spf_bench::printTable(rows, std::cout);
    std::cout << "\nratios of median CPU time per cycle (throughput for the hash)\n";
    std::cout.flush();
    bool met = true;
    for (const char* backEnd : {"posix", "sysv"}) {
        for (const std::string& group : {kNoGroup, kGroup}) {
            const std::string f = family(backEnd, group);
            met &= printRatio(rows, f, "creator  library", "creator  raw", 1.10);
            met &= printRatio(rows, f, "finder   library", "finder   raw", 1.10);
        }
    }
    const std::string posix = family("posix");
    met &= printRatio(rows, posix, "creator  library", "creator  Boost.Interprocess", 1.0);
    met &= printRatio(rows, posix, "finder   library", "finder   Boost.Interprocess", 1.0);
    met &= printRatio(rows, "", "hashBytes 1024 B", "std::hash 1024 B", 0.8, true);
    printRatio(rows, posix, "creator  raw + flock", "creator  raw", 0);
    printRatio(rows, posix, "creator  library, derived name", "creator  library", 0);
    printRatio(rows, posix, "finder   library, derived name", "finder   library", 0);
    std::printf("targets: %s\n", met ? "all met" : "not all met");

    if (const int left = sweep(); left != 0) {
        std::fprintf(stderr, "%d segments were left behind and have been removed\n", left);
        status = 1;
    }
    benchmark::Shutdown();
    return status;
}
