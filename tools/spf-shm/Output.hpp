// Segments for people (a table made by libsmartcols, or one "label: value" line per fact) and
// for scripts (libsmartcols' JSON with stable keys, one object per segment).
#ifndef SPF_SHM_OUTPUT_HPP
#define SPF_SHM_OUTPUT_HPP

#include <optional>
#include <string>
#include <vector>

#include "Arguments.hpp"
#include "System.hpp"

namespace spfshm {

struct Row {
    Segment segment;
    std::string state;
    std::vector<pid_t> users;
    std::optional<bool> removed;    // prune only
    const Usage* usage = nullptr;   // who lives, for the COMMAND column
};

Row makeRow(Segment segment, const Usage& usage);

// The table, raw table or JSON that the arguments ask for, with their columns.
void printTable(const std::vector<Row>& rows, const Arguments& arguments);
void printDetails(const std::vector<Row>& rows);
// Throws UsageError for an unknown column in --output.
void checkColumns(const Arguments& arguments);

// A name made safe for a terminal as util-linux makes it: control characters (C0, DEL, C1),
// what the locale cannot print and bytes that are no character become \xHH, and so does the
// "\" of a "\x" already in the name, so that the text reads back unambiguously.
std::string escapedName(const std::string& name);

// "/name" (escaped) for a POSIX object, "0x0000abcd (id 32768)" for a System V segment.
std::string label(const Segment& segment);

// Sizes as lsipc(1) prints them: 1000B, 1.5K, 10K, 1024K, 4M.
std::string humanSize(unsigned long long bytes);

}  // namespace spfshm

#endif
