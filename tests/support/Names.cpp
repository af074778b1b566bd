#include "Names.hpp"

#include <unistd.h>

#include <atomic>

namespace spf_test {

std::string uniqueName(const std::string& tag) {
    static std::atomic<unsigned> counter{0};
    return "spft-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" + tag;
}

}  // namespace spf_test
