// What the handle adds over its back ends: the name it opens, the empty handle, moves, and
// processes meeting through the derived name.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>
#include <thread>

#include "Leaks.hpp"
#include "Names.hpp"
#include "Processes.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "sysv/SysVImpl.hpp"

namespace sm = agent::spf::sharedmemory;
using Shm = sm::SharedMemory;

namespace {

const Shm::ImplementationSpecifications kBackEnds[] = {Shm::Posix, Shm::SysV};

bool exists(const std::string& name, Shm::ImplementationSpecifications spec) {
    return spec == Shm::Posix ? spf_test::posixObjectExists("/" + name)
                              : spf_test::sysvKeyExists(sm::segmentKey("/" + name));
}

// Whether this process maps the segment, as /proc/self/maps names it.
bool mapped(const std::string& name, Shm::ImplementationSpecifications spec) {
    char sysv[32];
    std::snprintf(sysv, sizeof sysv, "/SYSV%08x ", static_cast<unsigned>(sm::segmentKey("/" + name)));
    const std::string needle = spec == Shm::Posix ? "/dev/shm/" + name + " " : std::string(sysv);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if ((line + " ").find(needle) != std::string::npos) return true;
    }
    return false;
}

TEST(Handle, ConstructorsOpenTheNameAsGivenAndStaticFunctionsTheDerivedOne) {
    for (const auto spec : kBackEnds) {
        const std::string name = spf_test::uniqueName();
        const std::string derived = sm::deriveSegmentName(name, "");
        {
            Shm plain(name, 4096, std::string(), spec);
            EXPECT_TRUE(plain.isCreator() && exists(name, spec) && !exists(derived, spec));
            Shm created(name + "-c", 4096, true, "", spec);
            EXPECT_TRUE(created.isCreator() && exists(name + "-c", spec));

            Shm viaCreate = Shm::create(name, 4096, "", spec);
            EXPECT_TRUE(viaCreate.isCreator() && viaCreate.isAttached() && exists(derived, spec));
            Shm viaFind = Shm::find(name, 4096, "", spec);
            Shm viaEither = Shm::createOrFind(name, 4096, "", spec);
            EXPECT_TRUE(viaFind.isAttached() && !viaFind.isCreator() && !viaEither.isCreator());
            std::strcpy(static_cast<char*>(viaCreate.getPointer()), "derived");
            EXPECT_STREQ(static_cast<char*>(viaEither.getPointer()), "derived");
            EXPECT_STRNE(static_cast<char*>(plain.getPointer()), "derived") << "two names, one segment";
        }
        EXPECT_FALSE(exists(name, spec) || exists(name + "-c", spec) || exists(derived, spec));
    }
}

TEST(Handle, UnknownBackEndBuildsEmptyHandlesThatRefuseQueries) {
    const auto unknown = static_cast<Shm::ImplementationSpecifications>(2);
    const std::string name = spf_test::uniqueName();
    const auto objects = spf_test::posixObjects();
    const auto segments = spf_test::sysvSegments();
    Shm a(name, 4096, "", unknown), b(name, 4096, true, "", unknown);
    Shm c = Shm::createOrFind(name, 4096, "staff", unknown);
    EXPECT_TRUE(spf_test::posixObjects() == objects && spf_test::sysvSegments() == segments);

    Shm moved(std::move(a));
    b = std::move(moved);
    for (Shm* empty : {&a, &b, &c, &moved}) {
        EXPECT_THROW(empty->isCreator(), std::logic_error);
        EXPECT_THROW(empty->getPointer(), std::logic_error);
        EXPECT_THROW(empty->isAttached(), std::logic_error);
        EXPECT_THROW(empty->markForDeletion(), std::logic_error);
        EXPECT_THROW(empty->makePersistent(), std::logic_error);
        EXPECT_THROW(empty->getTrustee(), std::logic_error);
        EXPECT_THROW(empty->getOwner(), std::logic_error);
    }
    // Assigning an empty handle tears down what the target held.
    Shm holding(name, 4096, "", Shm::Posix);
    holding = std::move(c);
    EXPECT_FALSE(exists(name, Shm::Posix));
    EXPECT_THROW(holding.isAttached(), std::logic_error);
}

TEST(Handle, MovesTakeTheSegmentAndTearDownOnlyTheReplacedOne) {
    for (const auto spec : kBackEnds) {
        const std::string a = spf_test::uniqueName("a"), b = spf_test::uniqueName("b"),
                          kept = spf_test::uniqueName("kept");
        {
            Shm first(a, 4096, "", spec);
            void* const address = first.getPointer();
            Shm second(std::move(first));
            EXPECT_EQ(second.getPointer(), address);
            EXPECT_THROW(first.isAttached(), std::logic_error);
            EXPECT_TRUE(exists(a, spec) && mapped(a, spec));

            Shm target(b, 4096, "", spec);
            target = std::move(second);
            EXPECT_EQ(target.getPointer(), address);
            EXPECT_FALSE(exists(b, spec) || mapped(b, spec)) << "a marked segment goes";
            EXPECT_TRUE(exists(a, spec) && mapped(a, spec));

            Shm persistent(kept, 4096, "", spec);
            persistent.makePersistent();
            persistent = std::move(target);
            EXPECT_TRUE(exists(kept, spec) && !mapped(kept, spec)) << "an unmarked one is only detached";
            Shm(kept, 4096, false, "", spec).markForDeletion();
            EXPECT_FALSE(exists(kept, spec));

            Shm& self = persistent;  // an alias keeps -Wself-move quiet
            persistent = std::move(self);
            EXPECT_EQ(persistent.getPointer(), address);
            EXPECT_TRUE(persistent.isCreator() && exists(a, spec) && mapped(a, spec));
        }
        EXPECT_FALSE(exists(a, spec) || mapped(a, spec));
    }
}

TEST(Handle, TrusteeLiteralMeansCreateOrFindWithThatGroup) {
    if (!spf_test::isRoot()) GTEST_SKIP() << "needs root to hand segments to group staff";
    for (const auto spec : kBackEnds) {
        const std::string name = spf_test::uniqueName();
        Shm creator(name, 4096, "staff", spec), finder(name, 4096, "staff", spec);
        EXPECT_TRUE(creator.isCreator() && exists(name, spec));
        EXPECT_TRUE(finder.isAttached() && !finder.isCreator());
        EXPECT_EQ(creator.getTrustee() + "," + finder.getTrustee(), "staff,staff");
    }
}

// Both start at once; a finder that arrives before the creator granted the trustee stays
// unattached and tries again.
TEST(Handle, TwoProcessesMeetThroughCreateOrFindWithATrustee) {
    if (!spf_test::isRoot()) GTEST_SKIP() << "needs root to hand segments to group staff";
    struct Shared {
        std::atomic<int> written, read;
        char text[32];
    };
    for (const auto spec : kBackEnds) {
        const std::string name = spf_test::uniqueName();
        spf_test::Gate gate;
        const auto body = [&] {
            gate.wait();
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            const auto waitFor = [&](std::atomic<int>& flag) {
                while (flag.load() == 0 && std::chrono::steady_clock::now() < deadline)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                return flag.load() != 0;
            };
            while (std::chrono::steady_clock::now() < deadline) {
                Shm handle = Shm::createOrFind(name, 4096, "staff", spec);
                if (!handle.isAttached()) continue;
                auto* shared = static_cast<Shared*>(handle.getPointer());
                if (handle.isCreator()) {
                    std::strcpy(shared->text, "from the creator");
                    shared->written.store(1);
                    return waitFor(shared->read) ? 10 : 1;
                }
                if (!waitFor(shared->written)) return 2;
                shared->read.store(1);
                return std::strcmp(shared->text, "from the creator") == 0 ? 20 : 3;
            }
            return 4;
        };
        spf_test::Child one(body), two(body);
        gate.open();
        EXPECT_EQ((std::multiset<int>{one.join(), two.join()}), (std::multiset<int>{10, 20}));
        EXPECT_FALSE(exists(sm::deriveSegmentName(name, "staff"), spec));
    }
}

}  // namespace
