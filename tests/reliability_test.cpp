// Many processes at once on the same names, and inputs no caller should pass: the library must
// settle every race through the kernel and answer every bad input with a clear exception or a
// usable segment, never a crash, a hang or a leftover segment.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Leaks.hpp"
#include "LogCapture.hpp"
#include "Names.hpp"
#include "Processes.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "sysv/SysVImpl.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using Clock = std::chrono::steady_clock;

namespace {

const SharedMemory::ImplementationSpecifications kBackEnds[] = {SharedMemory::Posix, SharedMemory::SysV};

const char* backEndName(SharedMemory::ImplementationSpecifications spec) {
    return spec == SharedMemory::Posix ? "POSIX" : "System V";
}

// Whether the segment a static function derives from `name` is still in the system.
bool derivedSegmentLeft(const std::string& name) {
    const std::string derived = sm::deriveSegmentName(name, "");
    return spf_test::posixObjectExists(derived) || spf_test::sysvKeyExists(sm::segmentKey("/" + derived));
}

bool startsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// `pattern` is the whole text, or a prefix and a suffix around one "*".
bool matches(const std::string& text, const std::string& pattern) {
    const std::string::size_type star = pattern.find('*');
    if (star == std::string::npos) return text == pattern;
    const std::string suffix = pattern.substr(star + 1);
    return text.size() >= pattern.size() - 1 && startsWith(text, pattern.substr(0, star)) &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The identifier a System V finder got from shmget no longer names a segment (EINVAL, EIDRM).
bool segmentVanished(const std::string& text) {
    for (const char* step : {"attach:shmat/", "getTrustee:shmctl/"}) {
        for (const char* error : {"22", "43"}) {
            if (matches(text, std::string("SystemError:SharedMemory:") + step + "*:error=" + error)) return true;
        }
    }
    return false;
}

constexpr int kRacers = 8;
constexpr int kCreatorExit = 10;

// One round: kRacers processes leave a gate together into createOrFind. Each writes its slot and
// counts itself in, then holds the segment until all have counted in, so a late process cannot
// create a second segment after the first creator is gone; two segments would never reach the
// full count. The exit code tells creator from finder.
void raceOnce(SharedMemory::ImplementationSpecifications spec, int& creators) {
    spf_test::LogCapture quiet;
    const std::string name = spf_test::uniqueName("race");
    spf_test::Gate gate;
    std::vector<spf_test::Child> racers;
    for (int index = 0; index < kRacers; ++index) {
        racers.emplace_back([&, index] {
            gate.wait();
            SharedMemory shm = SharedMemory::createOrFind(name, 4096, "", spec);
            auto* words = static_cast<std::uint32_t*>(shm.getPointer());
            if (words == nullptr) return 1;
            std::atomic_ref<std::uint32_t>(words[1 + index]).store(index + 1);
            std::atomic_ref<std::uint32_t> arrived(words[0]);
            arrived.fetch_add(1);
            const auto deadline = Clock::now() + std::chrono::seconds(10);
            while (arrived.load() < kRacers) {
                if (Clock::now() > deadline) return 2;
                ::usleep(200);
            }
            for (int other = 0; other < kRacers; ++other) {
                if (std::atomic_ref<std::uint32_t>(words[1 + other]).load() != unsigned(other + 1)) return 3;
            }
            return shm.isCreator() ? kCreatorExit : 0;
        });
    }
    gate.open();
    creators = 0;
    for (spf_test::Child& racer : racers) {
        const int code = racer.join();
        ASSERT_TRUE(code == 0 || code == kCreatorExit) << backEndName(spec) << " racer exit " << code;
        creators += code == kCreatorExit;
    }
    EXPECT_FALSE(derivedSegmentLeft(name));
}

TEST(Reliability, SimultaneousCreateOrFindYieldsOneCreatorAndOneSharedSegment) {
    constexpr int kRounds = 300;
    for (const auto spec : kBackEnds) {
        for (int round = 0; round < kRounds; ++round) {
            int creators = 0;
            ASSERT_NO_FATAL_FAILURE(raceOnce(spec, creators));
            ASSERT_EQ(creators, 1) << backEndName(spec) << " round " << round;
        }
        std::printf("%s: %d rounds of %d simultaneous createOrFind, one creator each\n",
                    backEndName(spec), kRounds, kRacers);
    }
}

// Several processes open, write and tear down a handful of names as fast as they can, so that
// creations, finds and removals of the same name interleave in every order.
TEST(Reliability, ChurnOnAFewNamesLeavesNothingAndNeverTripsTheLoop) {
    constexpr int kChurners = 4;
    spf_test::LogCapture quiet;  // the children's expected failures stay off the console
    const std::vector<std::string> names = {spf_test::uniqueName("churn"), spf_test::uniqueName("churn"),
                                            spf_test::uniqueName("churn")};
    for (const auto spec : kBackEnds) {
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        std::vector<spf_test::Channel> reports(kChurners);
        std::vector<spf_test::Child> churners;
        for (int index = 0; index < kChurners; ++index) {
            churners.emplace_back([&, index] {
                long opened = 0, vanished = 0;
                for (long step = index; Clock::now() < deadline; ++step) {
                    try {
                        SharedMemory shm = SharedMemory::createOrFind(names[step % names.size()], 4096, "", spec);
                        if (!shm.isAttached()) return 3;
                        std::memset(shm.getPointer(), index, 4096);
                        ++opened;
                    } catch (const std::runtime_error& error) {
                        const std::string text = error.what();
                        // System V only: the creator removed the segment between this finder's
                        // shmget and its next step, which then names a gone identifier. Nothing is
                        // left open; the caller may simply retry.
                        if (spec == SharedMemory::SysV && segmentVanished(text)) {
                            ++vanished;
                            continue;
                        }
                        std::fprintf(stderr, "churner: %s\n", text.c_str());
                        return text.find("attempts") != std::string::npos ? 4 : 5;
                    }
                }
                reports[index].send(std::to_string(opened) + " " + std::to_string(vanished));
                return 0;
            });
        }
        long opened = 0, vanished = 0;
        for (int index = 0; index < kChurners; ++index) {
            EXPECT_EQ(churners[index].join(), 0) << backEndName(spec) << " churner " << index;
            long childOpened = 0, childVanished = 0;
            std::sscanf(reports[index].receive().c_str(), "%ld %ld", &childOpened, &childVanished);
            opened += childOpened, vanished += childVanished;
        }
        for (const std::string& name : names) {
            EXPECT_FALSE(derivedSegmentLeft(name)) << backEndName(spec) << " " << name;
        }
        EXPECT_GT(opened, 100) << backEndName(spec);
        std::printf("%s churn: %d processes, 2 s, %ld segments opened and torn down, %ld finds lost the "
                    "segment to its removal right after shmget\n", backEndName(spec), kChurners, opened, vanished);
    }
}

// Two finders of different sizes attach to an object nobody has sized yet: whoever sizes it
// first decides, and the larger finder either maps its whole size or is refused. Shrinking an
// object under a process that has mapped it would end that process with SIGBUS instead.
TEST(Reliability, FindersOfDifferentSizesRacingOnAnEmptyObjectNeverFault) {
    constexpr int kRounds = 1000;
    spf_test::LogCapture quiet;
    int bothMapped = 0, largerRefused = 0;
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = spf_test::uniqueName("size");
        const int descriptor = ::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        ASSERT_NE(descriptor, -1);
        ::close(descriptor);
        spf_test::Gate gate;
        const auto finder = [&](unsigned long size) {
            return [&, size] {
                gate.wait();
                try {
                    SharedMemory shm(name, size, false);
                    if (!shm.isAttached() || shm.isCreator()) return 3;
                    // The larger finder keeps writing for a while, so that a shrink by the other
                    // one after this mapping hits a write.
                    const auto until = Clock::now() + std::chrono::milliseconds(size > 4096 ? 2 : 0);
                    do std::memset(shm.getPointer(), 0x5a, size); while (Clock::now() < until);
                    return 0;
                } catch (const std::runtime_error& error) {
                    return startsWith(error.what(), "SystemError:SharedMemory:attach:st_size/" + name + ":error=") ? 7 : 5;
                }
            };
        };
        spf_test::Child small(finder(4096));
        spf_test::Child large(finder(8192));
        gate.open();
        const int smallCode = small.join();
        const int largeCode = large.join();
        EXPECT_EQ(::shm_unlink(("/" + name).c_str()), 0) << "finders must not remove the object";
        ASSERT_EQ(smallCode, 0) << "round " << round;
        ASSERT_TRUE(largeCode == 0 || largeCode == 7) << "round " << round << " exit " << largeCode;
        (largeCode == 0 ? bothMapped : largerRefused)++;
    }
    std::printf("POSIX sizing race: %d rounds, both mapped %d, larger refused %d, no SIGBUS\n",
                kRounds, bothMapped, largerRefused);
}

// What a call gave: "attached", "unattached", or the exception's type and text.
std::string outcomeOf(const std::function<SharedMemory()>& open) {
    try {
        SharedMemory shm = open();
        return shm.isAttached() ? "attached" : "unattached";
    } catch (const std::invalid_argument& error) {
        return std::string("invalid_argument: ") + error.what();
    } catch (const std::runtime_error& error) {
        return std::string("runtime_error: ") + error.what();
    }
}

struct BadInput {
    std::string what;
    std::string segment;  // the name the case opens, as the back end receives it
    std::function<SharedMemory()> open;
    std::vector<std::string> allowed;  // patterns of the allowed outcomes, as matches() reads them
};

TEST(Reliability, BadInputsGiveAClearAnswerAndLeaveNothing) {
    const std::string base = spf_test::uniqueName("bad");
    const std::string nul = base + std::string("\0tail", 5);
    unsigned long shmmax = 0;
    std::ifstream("/proc/sys/kernel/shmmax") >> shmmax;
    const std::string longTrustee(10 * 1024, 'g'), unknown = "nosuchgroup" + std::to_string(::getpid());
    const std::string runtime = "runtime_error: SystemError:SharedMemory:";
    const std::string noGroup = "invalid_argument: SystemError:SharedMemory:getgrnam:trustee=";
    const std::string refused =
        ">, owning group=<>, owning user=<>, selected group=<>, current username=<euid: *>, error=22";
    std::vector<BadInput> cases;
    int serial = 0;
    for (const auto spec : kBackEnds) {
        const bool posix = spec == SharedMemory::Posix;
        const std::string tag = std::string(backEndName(spec)) + ": ";
        // Each case gets a name of its own, so that no case finds what another left open.
        const auto fresh = [&] { return base + "-" + std::to_string(serial++); };
        const auto add = [&](const std::string& what, const std::string& segment, std::function<SharedMemory()> open,
                             std::vector<std::string> allowed) {
            cases.push_back({tag + what, segment, std::move(open), std::move(allowed)});
        };
        const auto plain = [&](const std::string& what, const std::string& name, unsigned long size,
                               const std::string& trustee, std::vector<std::string> allowed) {
            add(what, name, [=] { return SharedMemory(name, size, trustee, spec); }, std::move(allowed));
        };
        const auto attachedOr = [&](const std::string& posixOutcome) {
            return std::vector<std::string>{posix ? posixOutcome : "attached"};
        };
        const std::string n255 = std::string(255, 'n').replace(0, base.size(), base);
        const std::string n256 = n255 + "n", bare256(256, 'n'), slashed = fresh() + "/x";
        const std::string create = runtime + "create:shm_open:  name=</";
        plain("name with a slash inside", slashed, 4096, "", attachedOr(create + slashed + ">, trustee=<>, error=22"));
        plain("name of 255 bytes", n255, 4096, "", {"attached"});
        plain("name of 256 bytes", n256, 4096, "", attachedOr(create + n256 + ">, trustee=<>, error=36"));
        plain("empty name", "", 4096, "", attachedOr(create + ">, trustee=<>, error=22"));
        plain("name \".\"", ".", 4096, "", attachedOr(runtime + "find:shm_open:  name=</." + refused));
        plain("name \"..\"", "..", 4096, "", attachedOr(runtime + "find:shm_open:  name=</.." + refused));
        // The C calls see a POSIX name only up to its NUL; the System V key hashes every byte.
        add("name with a NUL byte", nul, [=] {
                SharedMemory shm(nul, 4096, "", spec);
                const bool where = posix ? spf_test::posixObjectExists(base)
                                         : spf_test::sysvKeyExists(sm::segmentKey("/" + nul));
                if (!where) throw std::logic_error("not where expected");
                return shm;
            }, {"attached"});
        plain("name with high bytes", fresh() + "\xff\x80\xfe", 4096, "", {"attached"});
        if (posix) {
            add("find on a name with a slash", base + "/x", [=] { return SharedMemory(base + "/x", 4096, false); },
                {runtime + "find:shm_open:  name=</" + base + "/x" + refused});
            add("create on a name of 256 bytes", bare256, [=] { return SharedMemory(bare256, 4096, true); },
                {create + bare256 + ">, trustee=<>, error=36"});
        }
        const std::pair<const char*, std::string> derivedFrom[] = {
            {"a slash", fresh() + "/x"}, {"10 KiB", std::string(10 * 1024, 's')}, {"a NUL byte", nul},
            {"a high byte", fresh() + "\xff"}};
        for (const auto& [what, name] : derivedFrom) {
            add(std::string("static createOrFind, name with ") + what, sm::deriveSegmentName(name, ""),
                [=, name = name] { return SharedMemory::createOrFind(name, 4096, "", spec); }, {"attached"});
        }
        add("static find, name with a slash", sm::deriveSegmentName(base + "/y", ""),
            [=] { return SharedMemory::find(base + "/y", 4096, "", spec); }, {"unattached"});
        const std::string tripped = runtime + "createOrFind:/" + base +
                                    "*:the segment could be neither created nor found after 10000 attempts:error=2";
        // ftruncate to 0 succeeds and leaves the object empty; the number is whatever errno held.
        plain("size 0", fresh(), 0, "", {posix ? runtime + "attach:ftruncate/" + base + "*" : tripped});
        plain("size 1", fresh(), 1, "", {"attached"});
        plain("size 4097", fresh(), 4097, "", {"attached"});
        // POSIX sizes a sparse object and maps it without touching it: 64 TiB fit in the address
        // space unless a sanitizer's shadow has taken it.
        plain("size 2^46", fresh(), 1ul << 46, "",
              posix ? std::vector<std::string>{"attached", runtime + "attach:mmap/" + base + "*:error=12"}
                    : std::vector<std::string>{runtime + "create:shmget/" + base + "*:error=12"});
        plain("size past shmmax", fresh(), shmmax + 1, "",
              {posix ? runtime + "attach:ftruncate/" + base + "*:error=22" : tripped});
        // The reentrant lookup answers "no entry" as -1; getgrnam leaves errno at 0.
        const std::string noEntry = posix ? ":error= -1" : ":error= 0";
        plain("empty trustee", fresh(), 4096, "", {"attached"});
        plain("unknown trustee", fresh(), 4096, unknown, {noGroup + unknown + noEntry});
        plain("trustee of 10 KiB", fresh(), 4096, longTrustee, {noGroup + longTrustee + noEntry});
        plain("trustee \"50\" (a group id, not a name)", fresh(), 4096, "50", {noGroup + "50" + noEntry});
        add("static create, unknown trustee", sm::deriveSegmentName(base, unknown),
            [=] { return SharedMemory::create(base, 4096, unknown, spec); }, {noGroup + unknown + noEntry});
        const std::string nullTrusted = fresh();
        add("null trustee", nullTrusted, [=] { return SharedMemory(nullTrusted, 4096, nullptr, spec); }, {"attached"});
    }
    spf_test::LogCapture log;
    for (const BadInput& input : cases) {
        log.clear();
        const int descriptors = spf_test::openDescriptorCount();
        const auto started = Clock::now();
        const std::string outcome = outcomeOf(input.open);
        EXPECT_LT(Clock::now() - started, std::chrono::seconds(5)) << input.what;
        bool allowed = false;
        for (const std::string& pattern : input.allowed) allowed = allowed || matches(outcome, pattern);
        EXPECT_TRUE(allowed) << input.what << " gave " << outcome;
        const bool failed = outcome != "attached" && outcome != "unattached";
        EXPECT_EQ(log.records().size(), failed ? 1u : 0u) << input.what << ": one record per failure";
        // Only this case's own name is looked at, since other suites may run beside this one. The
        // fixed names "", "." and ".." are left to the binary's leak guard: they are the same in
        // every run, and as POSIX paths they name /dev/shm itself or its parent.
        if (input.segment.find_first_not_of('.') != std::string::npos) {
            EXPECT_FALSE(spf_test::posixObjectExists(input.segment)) << input.what;
            EXPECT_FALSE(spf_test::sysvKeyExists(sm::segmentKey("/" + input.segment))) << input.what;
        }
        EXPECT_EQ(spf_test::openDescriptorCount(), descriptors) << input.what;
        const std::string shown =
            outcome.size() <= 160 ? outcome : outcome.substr(0, 110) + "..." + outcome.substr(outcome.size() - 40);
        std::printf("%-52s %s\n", input.what.c_str(), shown.c_str());
    }
    std::printf("%zu bad inputs tried\n", cases.size());
}

}  // namespace
