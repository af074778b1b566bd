// Many processes at once on the same names: the library must settle every race through the
// kernel, never with a second creator, a crash, a hang or a leftover segment.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <regex>

#include "Support.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using namespace spf_test;
using Clock = std::chrono::steady_clock;

namespace {

const char* backEndName(Spec spec) { return spec == P ? "POSIX" : "System V"; }

// Whether the segment a static function derives from `name` is still in the system.
bool derivedLeft(const std::string& name, const std::string& trustee = "") {
    return exists(sm::deriveSegmentName(name, trustee), P) || exists(sm::deriveSegmentName(name, trustee), V);
}

constexpr int kRacers = 8;
constexpr int kCreatorExit = 10;

// One round: kRacers processes leave a gate together into createOrFind. Each writes its slot and
// counts itself in, then holds the segment until all have counted in, so a late process cannot
// create a second segment after the first creator is gone; two segments would never reach the
// full count. With a trustee, a finder that arrives before the creator granted the group stays
// unattached and tries again. The exit code tells creator from finder.
int creatorsInOneRace(Spec spec, const std::string& trustee) {
    const std::string name = uniqueName("race");
    Pipe gate;
    std::vector<Child> racers;
    for (int index = 0; index < kRacers; ++index) {
        racers.emplace_back([&, index] {
            gate.receive();
            const auto deadline = Clock::now() + std::chrono::seconds(10);
            std::optional<SharedMemory> shm;
            while (!shm || !shm->isAttached()) {
                if (Clock::now() > deadline) return 1;
                shm.emplace(SharedMemory::createOrFind(name, 4096, trustee, spec));
            }
            auto* words = static_cast<std::uint32_t*>(shm->getPointer());
            std::atomic_ref<std::uint32_t>(words[1 + index]).store(index + 1);
            std::atomic_ref<std::uint32_t> arrived(words[0]);
            arrived.fetch_add(1);
            while (arrived.load() < kRacers && Clock::now() < deadline) ::usleep(200);
            for (int other = 0; other < kRacers; ++other) {
                if (std::atomic_ref<std::uint32_t>(words[1 + other]).load() != unsigned(other + 1)) return 3;
            }
            return shm->isCreator() ? kCreatorExit : 0;
        });
    }
    gate.receive();
    int creators = 0;
    for (Child& racer : racers) {
        const int code = racer.join();
        EXPECT_TRUE(code == 0 || code == kCreatorExit) << backEndName(spec) << " racer exit " << code;
        creators += code == kCreatorExit;
    }
    EXPECT_FALSE(derivedLeft(name, trustee));
    return creators;
}

TEST(Reliability, SimultaneousCreateOrFindYieldsOneCreatorAndOneSharedSegment) {
    constexpr int kRounds = 300;
    for (const Spec spec : kBackEnds) {
        for (int round = 0; round < kRounds; ++round) {
            const std::string trustee = round % 2 == 1 && isRoot() ? "staff" : "";
            ASSERT_EQ(creatorsInOneRace(spec, trustee), 1) << backEndName(spec) << " round " << round;
        }
        std::printf("%s: %d rounds of %d simultaneous createOrFind, one creator each\n", backEndName(spec), kRounds,
                    kRacers);
    }
}

// Several processes open, write and tear down a handful of names as fast as they can, so that
// creations, finds and removals of the same name interleave in every order.
TEST(Reliability, ChurnOnAFewNamesLeavesNothingAndNeverTripsTheLoop) {
    constexpr int kChurners = 4;
    LogCapture quiet;  // the children's expected failures stay off the console
    const std::vector<std::string> names = {uniqueName("churn"), uniqueName("churn"), uniqueName("churn")};
    for (const Spec spec : kBackEnds) {
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        std::vector<Child> churners;
        for (int index = 0; index < kChurners; ++index) {
            churners.emplace_back([&, index] {
                long opened = 0;
                for (long step = index; Clock::now() < deadline; ++step) {
                    const std::string failure = thrown([&] {
                        SharedMemory shm = SharedMemory::createOrFind(names[step % names.size()], 4096, "", spec);
                        std::memset(shm.getPointer(), index, 4096);
                        ++opened;
                    });
                    // System V only: the creator removed the segment between this finder's shmget and
                    // its next step, which then names a gone identifier (EINVAL or EIDRM). Nothing is
                    // left open; the caller may simply retry.
                    static const std::regex gone(
                        "runtime_error: SystemError:SharedMemory:(attach:shmat|getTrustee:shmctl)/.*:error=(22|43)");
                    if (!failure.empty() && !(spec == V && std::regex_match(failure, gone))) {
                        std::fprintf(stderr, "churner: %s\n", failure.c_str());
                        return 4;
                    }
                }
                return opened > 25 ? 0 : 5;
            });
        }
        for (Child& churner : churners) EXPECT_EQ(churner.join(), 0) << backEndName(spec);
        for (const std::string& name : names) EXPECT_FALSE(derivedLeft(name)) << backEndName(spec) << " " << name;
    }
}

// Two finders of different sizes attach to an object nobody has sized yet: whoever sizes it
// first decides, and the larger finder either maps its whole size or is refused. Shrinking an
// object under a process that has mapped it would end that process with SIGBUS instead.
TEST(Reliability, FindersOfDifferentSizesRacingOnAnEmptyObjectNeverFault) {
    constexpr int kRounds = 1000;
    LogCapture quiet;
    int bothMapped = 0, largerRefused = 0;
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = uniqueName("size");
        ASSERT_EQ(::close(::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600)), 0);
        Pipe gate;
        const auto finder = [&](unsigned long size) {
            return [&, size] {
                gate.receive();
                const std::string failure = thrown([&] {
                    SharedMemory shm(name, size, false);
                    if (!shm.isAttached() || shm.isCreator()) throw std::logic_error("not a finder");
                    // The larger finder keeps writing for a while, so that a shrink by the other one
                    // after this mapping hits a write.
                    const auto until = Clock::now() + std::chrono::milliseconds(size > 4096 ? 2 : 0);
                    do std::memset(shm.getPointer(), 0x5a, size); while (Clock::now() < until);
                });
                if (failure.empty()) return 0;
                return failure.rfind("runtime_error: SystemError:SharedMemory:attach:st_size/", 0) == 0 ? 7 : 5;
            };
        };
        Child small(finder(4096)), large(finder(8192));
        gate.receive();
        const int smallCode = small.join(), largeCode = large.join();
        EXPECT_EQ(::shm_unlink(("/" + name).c_str()), 0) << "finders must not remove the object";
        ASSERT_EQ(smallCode, 0) << "round " << round;
        ASSERT_TRUE(largeCode == 0 || largeCode == 7) << "round " << round << " exit " << largeCode;
        (largeCode == 0 ? bothMapped : largerRefused)++;
    }
    std::printf("POSIX sizing race: %d rounds, both mapped %d, larger refused %d, no SIGBUS\n", kRounds, bothMapped,
                largerRefused);
}

}  // namespace
