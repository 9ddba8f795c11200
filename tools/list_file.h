// A list of groups as the agent reads it, with what is wrong or odd in it told by line and column.
#ifndef ZENTCTL_LIST_FILE_H
#define ZENTCTL_LIST_FILE_H

#include <string>
#include <string_view>
#include <vector>

#include "group.h"
#include "report.h"

namespace zentctl {

// The whole of a file; "-" is the standard input. Throws CannotLook.
std::string read_whole_file(const std::string& path);

// One line of a list that is an entry.
struct ListEntry {
    size_t line = 0;
    uint32_t group = 0;   // host byte order
    bool matches = false; // whether the agent finds it when it is asked for the group
};

struct ListReading {
    std::vector<Finding> findings;  // in the order of the lines
    std::vector<ListEntry> entries; // what the agent takes, or would take with the errors gone
    bool refused = false;           // by the rules of the format
    bool taken = false;             // by the agent's own loader (judge_list): always the opposite
};

// Reads the text of a list. Only the format is judged, neither range nor table.
ListReading read_list(std::string_view text);

// The entries as the agent takes them: dotted decimal, one a line, order kept.
std::string fixed_text(const ListReading& list);

// Hands the text to the agent's own loader; false if that refuses it. The list then stands in the agent's
// scope, in_scope() knows it. Throws CannotLook, for instance where the loader has no memory.
bool load_into_agent(std::string_view text);

// read_list, and what the agent makes of it: whether it takes the list, and which entries have an effect. A
// list that it refuses is asked without the lines that it refuses. Leaves the agent's scope with the list and
// without a range.
ListReading judge_list(std::string_view text);

} // namespace zentctl

#endif
