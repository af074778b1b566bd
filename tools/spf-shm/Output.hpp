// Segments for people (an aligned table, or one "label: value" line per fact) and for
// scripts (JSON with stable keys, one object per segment).
#ifndef SPF_SHM_OUTPUT_HPP
#define SPF_SHM_OUTPUT_HPP

#include <optional>
#include <string>
#include <vector>

#include "System.hpp"

namespace spfshm {

struct Row {
    Segment segment;
    std::string state;
    std::vector<pid_t> users;
    std::optional<bool> removed;  // prune only
};

Row makeRow(const Segment& segment, const Usage& usage);

void printTable(const std::vector<Row>& rows, bool exactSizes);
void printDetails(const std::vector<Row>& rows);
void printJson(const std::vector<Row>& rows);

// `name` (an object name, no "/" added) made safe for a terminal.
std::string escapedName(const std::string& name);

// "/name" for a POSIX object, "0x0000abcd (id 32768)" for a System V segment.
std::string label(const Segment& segment);

}  // namespace spfshm

#endif
