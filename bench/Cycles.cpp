// spf_bench_cycles: the C++ side of bench/python_bench.py, so that both languages' cycles run in
// one interleaved run. For each line "NAME BACKEND COUNT" on stdin it runs COUNT cycles of: find
// the segment of 4 KiB under the name derived from NAME, copy its bytes out into a new buffer,
// let it go; and it answers with the CPU and the wall nanoseconds the cycles took.
#include <time.h>

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

using agent::spf::sharedmemory::SharedMemory;

namespace {

std::int64_t now(clockid_t clock) {
    timespec t;
    ::clock_gettime(clock, &t);
    return t.tv_sec * std::int64_t{1000000000} + t.tv_nsec;
}

}  // namespace

int main() {
    constexpr unsigned long kSize = 4096;
    std::string name;
    int backend;
    long count;
    while (std::cin >> name >> backend >> count) {
        const auto spec = static_cast<SharedMemory::ImplementationSpecifications>(backend);
        const std::int64_t cpu = now(CLOCK_PROCESS_CPUTIME_ID), wall = now(CLOCK_MONOTONIC);
        for (long i = 0; i < count; ++i) {
            SharedMemory segment = SharedMemory::find(name, kSize, "", spec);
            if (!segment.isAttached()) {
                std::cerr << "spf_bench_cycles: no segment for " << name << '\n';
                return 1;
            }
            const auto* bytes = static_cast<const unsigned char*>(segment.getPointer());
            std::vector<unsigned char> copy(bytes, bytes + kSize);
            asm volatile("" : : "r"(copy.data()) : "memory");  // the copy counts as used
        }
        std::cout << now(CLOCK_PROCESS_CPUTIME_ID) - cpu << ' ' << now(CLOCK_MONOTONIC) - wall
                  << std::endl;
    }
    return 0;
}
