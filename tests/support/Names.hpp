// Segment names no other test (or test run) uses: the pid and a counter.
#pragma once

#include <string>

namespace spf_test {

std::string uniqueName(const std::string& tag = "seg");

}  // namespace spf_test
