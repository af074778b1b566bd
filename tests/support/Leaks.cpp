#include "Leaks.hpp"

#include <dirent.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace spf_test {
namespace {

template <typename Visit>
void forEachSysvLine(Visit visit) {
    std::ifstream table("/proc/sysvipc/shm");
    std::string line;
    std::getline(table, line);  // header
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        long long key;
        int id;
        unsigned mode;
        unsigned long long size;
        long long cpid, lpid, nattch;
        unsigned long uid, gid;
        fields >> key >> id >> std::oct >> mode >> std::dec >> size >> cpid >> lpid >> nattch >> uid >> gid;
        if (fields) {
            visit(static_cast<key_t>(key), id, Ownership{mode & 0777, static_cast<uid_t>(uid),
                                                         static_cast<gid_t>(gid), size});
        }
    }
}

std::string objectPath(const std::string& segmentName) {
    const auto start = segmentName.find_first_not_of('/');
    return "/dev/shm/" + (start == std::string::npos ? std::string() : segmentName.substr(start));
}

}  // namespace

int openDescriptorCount() {
    int count = 0;
    if (DIR* directory = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] != '.') {
                ++count;
            }
        }
        ::closedir(directory);
        --count;  // the directory's own descriptor
    }
    return count;
}

int segmentMappingCount() {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(maps, line)) {
        if (line.find(" /dev/shm/") != std::string::npos ||
            line.find(" /SYSV") != std::string::npos) {
            ++count;
        }
    }
    return count;
}

std::set<std::string> posixObjects() {
    std::set<std::string> names;
    if (DIR* directory = ::opendir("/dev/shm")) {
        while (const dirent* entry = ::readdir(directory)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.insert(name);
            }
        }
        ::closedir(directory);
    }
    return names;
}

std::set<int> sysvSegments() {
    std::set<int> ids;
    forEachSysvLine([&](key_t, int id, const Ownership&) { ids.insert(id); });
    return ids;
}

bool posixObjectExists(const std::string& segmentName) {
    struct stat status;
    return ::stat(objectPath(segmentName).c_str(), &status) == 0;
}

bool sysvKeyExists(key_t key) {
    bool found = false;
    forEachSysvLine([&](key_t lineKey, int, const Ownership&) { found = found || lineKey == key; });
    return found;
}

bool posixOwnership(const std::string& segmentName, Ownership& out) {
    struct stat status;
    if (::stat(objectPath(segmentName).c_str(), &status) != 0) {
        return false;
    }
    out = Ownership{static_cast<unsigned>(status.st_mode & 0777), status.st_uid, status.st_gid,
                    static_cast<unsigned long long>(status.st_size)};
    return true;
}

bool sysvOwnership(key_t key, Ownership& out) {
    bool found = false;
    forEachSysvLine([&](key_t lineKey, int, const Ownership& entry) {
        if (lineKey == key) {
            out = entry;
            found = true;
        }
    });
    return found;
}

void removePosixObject(const std::string& segmentName) { ::unlink(objectPath(segmentName).c_str()); }

void removeSysvKey(key_t key) {
    forEachSysvLine([&](key_t lineKey, int id, const Ownership&) {
        if (lineKey == key) {
            ::shmctl(id, IPC_RMID, nullptr);
        }
    });
}

}  // namespace spf_test
