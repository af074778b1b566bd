// Every test binary checks, around its whole run, that it leaves no descriptor, POSIX object or
// System V segment behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "Leaks.hpp"

namespace {

class LeakGuard : public ::testing::Environment {
public:
    void SetUp() override {
        descriptors_ = spf_test::openDescriptorCount();
        objects_ = spf_test::posixObjects();
        segments_ = spf_test::sysvSegments();
    }

    void TearDown() override {
        EXPECT_EQ(spf_test::openDescriptorCount(), descriptors_) << "descriptors leaked";
        std::set<std::string> newObjects;
        const std::set<std::string> objects = spf_test::posixObjects();
        std::set_difference(objects.begin(), objects.end(), objects_.begin(), objects_.end(),
                            std::inserter(newObjects, newObjects.end()));
        for (const std::string& name : newObjects) {
            ADD_FAILURE() << "POSIX object left behind: /dev/shm/" << name;
        }
        const std::set<int> segments = spf_test::sysvSegments();
        for (int id : segments) {
            if (segments_.count(id) == 0) {
                ADD_FAILURE() << "System V segment left behind: id " << id;
            }
        }
    }

private:
    int descriptors_ = 0;
    std::set<std::string> objects_;
    std::set<int> segments_;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new LeakGuard);
    return RUN_ALL_TESTS();
}
