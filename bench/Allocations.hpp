// Counts the calls of the global operator new in this program, the shared library's included
// (the program's replacement is the one every module of the process binds to).
#ifndef SPF_BENCH_ALLOCATIONS_HPP
#define SPF_BENCH_ALLOCATIONS_HPP

#include <cstdint>

namespace spf_bench {

std::uint64_t allocationCount() noexcept;

}  // namespace spf_bench

#endif
