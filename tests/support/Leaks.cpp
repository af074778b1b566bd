#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "Support.hpp"

namespace spf_test {
namespace {

std::set<std::string> entries(const char* directory) {
    std::set<std::string> names;
    if (DIR* open = ::opendir(directory)) {
        while (const dirent* entry = ::readdir(open)) names.insert(entry->d_name);
        ::closedir(open);
    }
    names.erase(".");
    names.erase("..");
    return names;
}

// The System V table by identifier: key and ownership of every segment.
std::map<int, std::pair<key_t, Ownership>> sysvTable() {
    std::map<int, std::pair<key_t, Ownership>> table;
    std::ifstream file("/proc/sysvipc/shm");
    std::string line;
    std::getline(file, line);  // header
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        long long key, cpid, lpid, nattch;
        int id;
        Ownership entry;
        fields >> key >> id >> std::oct >> entry.mode >> std::dec >> entry.size >> cpid >> lpid >>
            nattch >> entry.uid >> entry.gid;
        entry.mode &= 0777;
        table[id] = {static_cast<key_t>(key), entry};
    }
    return table;
}

}  // namespace

std::string uniqueName(const std::string& tag) {
    static std::atomic<unsigned> counter{0};
    return "spft-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" + tag;
}

int openDescriptorCount() { return static_cast<int>(entries("/proc/self/fd").size()) - 1; }

int segmentMappingCount() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find(" /dev/shm/") != std::string::npos || line.find(" /SYSV") != std::string::npos;
    }
    return count;
}

Ownership ownership(const std::string& name, Spec spec) {
    if (spec == V) {
        for (const auto& [id, entry] : sysvTable()) {
            if (entry.first == agent::spf::sharedmemory::deriveSystemVKey(name)) return entry.second;
        }
        return {};
    }
    struct stat status;
    if (entries("/dev/shm").count(name) == 0 || ::stat(("/dev/shm/" + name).c_str(), &status) != 0) return {};
    return {static_cast<unsigned>(status.st_mode & 0777), status.st_uid, status.st_gid,
            static_cast<unsigned long long>(status.st_size)};
}

bool exists(const std::string& name, Spec spec) { return ownership(name, spec).mode != 0; }

}  // namespace spf_test

namespace {

// Around a whole binary: no descriptor, POSIX object or System V segment is left behind.
class LeakGuard : public ::testing::Environment {
public:
    void SetUp() override {
        descriptors_ = spf_test::openDescriptorCount();
        objects_ = spf_test::entries("/dev/shm");
        segments_ = spf_test::sysvTable();
    }
    void TearDown() override {
        EXPECT_EQ(spf_test::openDescriptorCount(), descriptors_) << "descriptors leaked";
        for (const std::string& name : spf_test::entries("/dev/shm")) {
            EXPECT_EQ(objects_.count(name), 1u) << "POSIX object left behind: /dev/shm/" << name;
        }
        for (const auto& [id, entry] : spf_test::sysvTable()) {
            EXPECT_EQ(segments_.count(id), 1u) << "System V segment left behind: id " << id;
        }
    }

private:
    int descriptors_ = 0;
    std::set<std::string> objects_;
    std::map<int, std::pair<key_t, spf_test::Ownership>> segments_;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new LeakGuard);
    return RUN_ALL_TESTS();
}
