// Looking at segments and removing them, from what the system shows. Nothing here opens a
// segment through the library: looking must change nothing, and removal must reach segments
// that the library did not make.
#include <fnmatch.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Commands.hpp"
#include "Output.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace spfshm {

namespace {

std::vector<Segment> segments(const Arguments& arguments) {
    std::vector<Segment> all;
    if (!arguments.sysv) all = posixObjects();
    if (!arguments.posix) {
        for (Segment& segment : sysvSegments()) all.push_back(std::move(segment));
    }
    return all;
}

// The segments that show and remove address: one POSIX object, or the System V segments with
// the given id or key (a key derived from the library's name unless given).
std::vector<Segment> addressed(const Arguments& arguments) {
    std::vector<Segment> found;
    if (!arguments.sysv) {
        Segment object;
        const std::string name = segmentName(arguments);
        if (!posixObject(name, object)) throw Failure{"no POSIX object /" + escapedName(name)};
        found.push_back(object);
        return found;
    }
    const std::int32_t key =
        arguments.key  ? *arguments.key
        : arguments.id ? 0
                       : agent::spf::sharedmemory::deriveSystemVKey(segmentName(arguments));
    for (const Segment& segment : sysvSegments()) {
        if (arguments.id ? segment.id == *arguments.id : segment.key == key)
            found.push_back(segment);
    }
    if (found.empty()) {
        char text[80];
        if (arguments.id)
            std::snprintf(text, sizeof text, "no System V segment with id %d", *arguments.id);
        else
            std::snprintf(text, sizeof text, "no System V segment with key 0x%08x",
                          static_cast<unsigned>(key));
        throw Failure{text};
    }
    return found;
}

void print(const std::vector<Row>& rows, const Arguments& arguments) {
    if (arguments.command == "show" && !arguments.json)
        printDetails(rows);
    else
        printTable(rows, arguments);
}

bool removeFromSystem(const Segment& segment, std::string& why) {
    const int result = segment.sysv ? ::shmctl(segment.id, IPC_RMID, nullptr)
                                    : ::shm_unlink(("/" + segment.name).c_str());
    if (result == 0) return true;
    why = std::strerror(errno);
    return false;
}

enum class Recheck { kOrphan, kKept, kFailed };

constexpr std::chrono::milliseconds kFreshFor{10};

// Just before a removal: the orphan must still be the object or segment that was judged, and
// `fresh`, a look at the processes taken after it was judged, must find no user. That look is
// taken before the comparison of inodes, so that an object replaced since fails it.
Recheck recheck(const Segment& segment, const Usage& fresh, std::string& why) {
    if (!segment.sysv) {
        Segment now;
        if (!posixObject(segment.name, now) || now.inode != segment.inode) {
            why = "it changed since it was looked at";
            return Recheck::kKept;
        }
        const std::string judged = state(segment, fresh);
        if (judged == "orphan") return Recheck::kOrphan;
        why = judged == "in-use" ? "it is in use now" : "its users cannot be seen now";
        return Recheck::kKept;
    }
    shmid_ds status{};
    if (::shmctl(segment.id, IPC_STAT, &status) != 0) {
        const bool gone = errno == EINVAL || errno == EIDRM;
        why = gone ? "it is gone" : std::strerror(errno);
        return gone ? Recheck::kKept : Recheck::kFailed;
    }
    if (status.shm_perm.__key != segment.key || (status.shm_perm.mode & SHM_DEST) != 0) {
        why = "it changed since it was looked at";
        return Recheck::kKept;
    }
    if (status.shm_nattch == 0 && status.shm_lpid == segment.lastPid) return Recheck::kOrphan;
    why = "it was used since it was looked at";
    return Recheck::kKept;
}

// Why POSIX objects in no seen use are "unknown", said once before they are listed.
void warnIfBlind(const Usage& usage, bool posixUnknown) {
    if (!posixUnknown) return;
    std::fflush(stdout);
    std::fprintf(stderr,
                 "spf-shm: cannot see every process (%s): POSIX objects that no process here "
                 "uses are unknown\n",
                 usage.blind.c_str());
}

bool posixUnknown(const Row& row) { return !row.segment.sysv && row.state == "unknown"; }

bool matches(const Segment& segment, const Arguments& arguments) {
    if (arguments.owner && segment.uid != *arguments.owner) return false;
    if (arguments.key && (!segment.sysv || segment.key != *arguments.key)) return false;
    if (arguments.olderThan && std::time(nullptr) - segment.changed < *arguments.olderThan)
        return false;
    if (!arguments.name) return true;
    if (segment.sysv)
        return segment.key ==
               agent::spf::sharedmemory::deriveSystemVKey(objectName(*arguments.name, false));
    return ::fnmatch(objectName(*arguments.name, false).c_str(), segment.name.c_str(), 0) == 0;
}

// The bytes an object may still claim from /dev/shm before every page it has exists.
unsigned long long unallocated(const Segment& object) {
    static const unsigned long long page = static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
    const unsigned long long pages = (object.size + page - 1) / page * page;
    return pages > object.allocated ? pages - object.allocated : 0;
}

// A write into a page of an object that tmpfs cannot back raises SIGBUS in the writer, far
// from the cause; the operator hears of it here first.
void warnIfUnbacked(unsigned long long unbacked) {
    struct statvfs space;
    if (unbacked == 0 || ::statvfs("/dev/shm", &space) != 0) return;
    const unsigned long long free =
        static_cast<unsigned long long>(space.f_bavail) * space.f_frsize;
    if (free >= unbacked) return;
    std::fflush(stdout);
    std::fprintf(stderr,
                 "spf-shm: warning: /dev/shm has %s free, but its objects have %s not yet "
                 "allocated (see ALLOC); these segments can fault their users\n",
                 humanSize(free).c_str(), humanSize(unbacked).c_str());
}

// A listing's heap grows by about a KiB a segment, first touched page by page, and a page
// fault costs more than the page (several times more in a virtual machine): one call maps it
// all in at once, for the heap that the listing reuses once it is freed.
void prefaultHeap() {
    struct statvfs objects {};
    struct shm_info table {};
    ::statvfs("/dev/shm", &objects);
    const long sysvCount = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&table)) >= 0
                               ? static_cast<long>(table.used_ids)
                               : 0;
    const std::size_t bytes = std::min<std::size_t>(
        (objects.f_files - objects.f_ffree + static_cast<std::size_t>(sysvCount)) << 10, 64 << 20);
    if (bytes < (256 << 10)) return;
    void* heap = std::malloc(bytes);
    if (heap == nullptr) return;
    const auto page = reinterpret_cast<std::uintptr_t>(heap) & ~std::uintptr_t{4095};
    ::madvise(reinterpret_cast<void*>(page), bytes, MADV_POPULATE_WRITE);  // a hint: may fail
    std::free(heap);
}

}  // namespace

int list(const Arguments& arguments) {
    prefaultHeap();
    std::vector<Segment> all = segments(arguments);
    const Usage usage = scanProcesses(arguments.seesAll);
    std::vector<Row> rows;
    std::size_t unknown = 0, orphans = 0;
    unsigned long long unbacked = 0;
    bool blind = false;
    rows.reserve(all.size());
    for (Segment& segment : all) {
        if (!segment.sysv) unbacked += unallocated(segment);
        if (!matches(segment, arguments)) continue;
        Row row = makeRow(std::move(segment), usage);
        unknown += row.state == "unknown";
        orphans += row.state == "orphan";
        blind = blind || posixUnknown(row);
        if (!arguments.orphans || row.state == "orphan") rows.push_back(std::move(row));
    }
    std::vector<Segment>().swap(all);  // its memory serves the table: fewer pages to fault in
    warnIfBlind(usage, blind);
    print(rows, arguments);
    warnIfUnbacked(unbacked);
    if (arguments.orphans && unknown > 0) {
        std::fflush(stdout);
        std::fprintf(stderr,
                     "spf-shm: %zu more segment(s) may be orphans; their state is unknown\n",
                     unknown);
    }
    return arguments.check && orphans > 0 ? 3 : 0;
}

int show(const Arguments& arguments) {
    const std::vector<Segment> found = addressed(arguments);
    const Usage usage = scanProcesses(arguments.seesAll);
    std::vector<Row> rows;
    for (const Segment& segment : found) rows.push_back(makeRow(segment, usage));
    warnIfBlind(usage, std::any_of(rows.begin(), rows.end(), posixUnknown));
    print(rows, arguments);
    return 0;
}

namespace {

void removeOne(const Arguments& arguments) {
    // Key 0 is every private segment's and every removed one's: a key must name one segment.
    if (arguments.key && *arguments.key == 0)
        throw Failure{"illegal key (0): private and removed segments share it; use --id"};
    const std::vector<Segment> found = addressed(arguments);
    if (arguments.key && found.size() > 1) {
        char text[96];
        std::snprintf(text, sizeof text, "key 0x%08x names %zu segments; use --id",
                      static_cast<unsigned>(*arguments.key), found.size());
        throw Failure{text};
    }
    std::string why;
    for (const Segment& segment : found) {
        if (!removeFromSystem(segment, why))
            throw Failure{"cannot remove " + label(segment) + ": " + why};
        unsigned long attached = 0;
        if (segment.sysv) {
            for (const Segment& left : sysvSegments())
                attached += left.id == segment.id ? left.attached : 0;
        }
        std::printf("removed %s (%s)", label(segment).c_str(), segment.sysv ? "System V" : "POSIX");
        if (attached > 0)
            std::printf("; it disappears when its %lu remaining users detach", attached);
        std::printf("\n");
    }
}

}  // namespace

// Each id is removed or its failure told, as ipcrm does: one that fails stops none of the rest.
int remove(const Arguments& arguments) {
    if (arguments.ids.size() <= 1) return removeOne(arguments), 0;
    int status = 0;
    for (const int id : arguments.ids) {
        Arguments one = arguments;
        one.id = id;
        try {
            removeOne(one);
        } catch (const Failure& failure) {
            std::fflush(stdout);
            std::fprintf(stderr, "spf-shm: %s\n", failure.text.c_str());
            status = 1;
        }
    }
    return status;
}

int prune(const Arguments& arguments) {
    const std::vector<Segment> all = segments(arguments);
    const Usage usage = scanProcesses(arguments.seesAll);
    std::vector<Row> rows;
    bool blind = false;
    for (const Segment& segment : all) {
        if (!matches(segment, arguments)) continue;
        Row row = makeRow(segment, usage);
        blind = blind || posixUnknown(row);
        if (row.state == "orphan") rows.push_back(std::move(row));
    }
    warnIfBlind(usage, blind);
    if (!arguments.yes) {
        print(rows, arguments);
        std::fflush(stdout);
        std::fprintf(stderr, "spf-shm: %zu orphan(s) would be removed; add --yes to remove them\n",
                     rows.size());
        return 0;
    }
    int status = 0;
    // A look at every process lasts longer than dozens of removals, and one per orphan would
    // take minutes for thousands: the users are looked at again once the last look is 10 ms old.
    Usage fresh;
    std::chrono::steady_clock::time_point looked{};
    for (Row& row : rows) {
        std::string why;
        const Segment& segment = row.segment;
        if (!segment.sysv && std::chrono::steady_clock::now() - looked > kFreshFor) {
            fresh = scanProcesses(arguments.seesAll);
            looked = std::chrono::steady_clock::now();
        }
        // One taken into use meanwhile is kept, which is no failure; a refused removal is.
        const Recheck check = recheck(segment, fresh, why);
        row.removed = check == Recheck::kOrphan && removeFromSystem(segment, why);
        if (!*row.removed) {
            std::fprintf(stderr, "spf-shm: kept %s: %s\n", label(segment).c_str(), why.c_str());
            if (check != Recheck::kKept) status = 1;
        } else {
            std::fprintf(arguments.json ? stderr : stdout, "removed %s (%s)\n",
                         label(segment).c_str(), segment.sysv ? "System V" : "POSIX");
        }
    }
    if (arguments.json) printTable(rows, arguments);
    return status;
}

}  // namespace spfshm
