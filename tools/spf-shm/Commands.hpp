// The commands. Each returns the exit status or throws UsageError or Failure.
#ifndef SPF_SHM_COMMANDS_HPP
#define SPF_SHM_COMMANDS_HPP

#include "Arguments.hpp"

namespace spfshm {

// Read only: from /dev/shm, /proc/sysvipc/shm and /proc, never through the library's handle.
int list(const Arguments& arguments);
int show(const Arguments& arguments);
// Remove with the system's own calls, so that segments the library did not make go too.
int remove(const Arguments& arguments);
int prune(const Arguments& arguments);

// Through the library's handle, as an application opens a segment.
int name(const Arguments& arguments);
int open(const Arguments& arguments);
void logToStderr();

}  // namespace spfshm

#endif
