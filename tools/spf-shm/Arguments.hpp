// The command line: one command, its options and its operands, checked strictly.
#ifndef SPF_SHM_ARGUMENTS_HPP
#define SPF_SHM_ARGUMENTS_HPP

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace spfshm {

// Bad usage: exit status 2. An empty text asks for the help.
struct UsageError {
    std::string text;
};

// A failure or a segment not found: exit status 1.
struct Failure {
    std::string text;
};

struct Arguments {
    std::string command;
    std::vector<std::string> operands;
    bool sysv = false, posix = false;  // a back end chosen or, for listings, a filter
    std::optional<std::string> trustee;
    bool derive = false, persistent = false, reserve = false;
    unsigned long hold = 0;
    std::optional<std::int32_t> key;
    std::optional<int> id;  // the first --id
    std::vector<int> ids;   // every --id, in order: several for remove only
    std::optional<uid_t> owner;
    std::optional<std::string> name;     // the --name filter, a pattern
    std::optional<long long> olderThan;  // seconds
    std::optional<std::string> output;   // --output: the columns, "+" to add to the usual ones
    bool outputAll = false, noHeadings = false, raw = false;
    bool bytes = false, json = false, orphans = false, yes = false;
    bool check = false;    // exit status 3 when the listing holds an orphan
    bool seesAll = false;  // the operator vouches that every user of /dev/shm is visible here
    bool help = false, version = false;
};

// Options may come before the command, as getopt_long(3) permutes them. Throws UsageError.
Arguments parseArguments(int argc, char** argv);

// `text` as a segment's object name: a leading "/" dropped. Throws UsageError for an empty name
// and, for POSIX, for "." or "..", a further "/" or more than 255 bytes.
std::string objectName(const std::string& text, bool posix);

// The name the library's handle opens for this command's NAME operand: NAME itself (see
// objectName) or, with --derive, the name derived from NAME and the trustee.
std::string segmentName(const Arguments& arguments);

extern const char kUsage[];
extern const char kHelp[];

}  // namespace spfshm

#endif
