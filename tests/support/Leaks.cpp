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
        while (const dirent* entry = ::readdir(open)) {
            if (entry->d_name[0] != '.') names.insert(entry->d_name);
        }
        ::closedir(open);
    }
    return names;
}

// The System V table: key and ownership of every segment, by identifier.
std::map<int, std::pair<key_t, Ownership>> sysvTable() {
    std::map<int, std::pair<key_t, Ownership>> table;
    std::ifstream file("/proc/sysvipc/shm");
    std::string line;
    for (std::getline(file, line); std::getline(file, line);) {
        std::istringstream fields(line);
        long long key, pid;
        int id;
        Ownership entry;
        fields >> key >> id >> std::oct >> entry.mode >> std::dec >> entry.size >> pid >> pid >> pid >> entry.uid >>
            entry.gid >> pid >> pid >> pid >> pid >> pid >> entry.allocated;
        table[id] = {static_cast<key_t>(key), {entry.mode & 0777, entry.uid, entry.gid, entry.size, entry.allocated}};
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
    struct stat status;
    if (spec == P) {
        if (entries("/dev/shm").count(name) == 0 || ::stat(("/dev/shm/" + name).c_str(), &status) != 0) return {};
        return {status.st_mode & 0777u, status.st_uid, status.st_gid, static_cast<unsigned long long>(status.st_size),
                static_cast<unsigned long long>(status.st_blocks) * 512};
    }
    for (const auto& [id, entry] : sysvTable()) {
        if (entry.first == agent::spf::sharedmemory::deriveSystemVKey(name)) return entry.second;
    }
    return {};
}

// Around a whole binary: no descriptor, POSIX object or System V segment is left behind.
class LeakGuard : public ::testing::Environment {
    void SetUp() override {
        descriptors_ = openDescriptorCount();
        objects_ = entries("/dev/shm");
        segments_ = sysvTable();
    }
    void TearDown() override {
        EXPECT_EQ(openDescriptorCount(), descriptors_) << "descriptors leaked";
        for (const std::string& name : entries("/dev/shm")) {
            EXPECT_EQ(objects_.count(name), 1u) << "POSIX object left behind: /dev/shm/" << name;
        }
        for (const auto& [id, entry] : sysvTable()) {
            EXPECT_EQ(segments_.count(id), 1u) << "System V segment left behind: id " << id;
        }
    }

    int descriptors_ = 0;
    std::set<std::string> objects_;
    std::map<int, std::pair<key_t, Ownership>> segments_;
};

}  // namespace spf_test

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new spf_test::LeakGuard);
    return RUN_ALL_TESTS();
}
