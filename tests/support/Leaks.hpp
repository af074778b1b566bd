// What a test could leave behind: descriptors, mappings, POSIX objects, System V segments.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>

namespace spf_test {

int openDescriptorCount();
// Mappings of POSIX objects and System V segments only: a count of all mappings would move
// whenever an allocator (a sanitizer's above all) maps more of its own memory on the way.
int segmentMappingCount();
std::set<std::string> posixObjects();   // entries of /dev/shm
std::set<int> sysvSegments();           // identifiers in /proc/sysvipc/shm
bool posixObjectExists(const std::string& segmentName);  // "/x" or "x"
bool sysvKeyExists(key_t key);

// Mode, owner and group of a POSIX object or System V segment as the system records them.
struct Ownership {
    unsigned mode = 0;  // permission bits only
    uid_t uid = 0;
    gid_t gid = 0;
    unsigned long long size = 0;
};
bool posixOwnership(const std::string& segmentName, Ownership& out);
bool sysvOwnership(key_t key, Ownership& out);

// Removes a POSIX object / System V segment a failed test may have left (best effort).
void removePosixObject(const std::string& segmentName);
void removeSysvKey(key_t key);

}  // namespace spf_test
