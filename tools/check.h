// The doctor's parts: each looks at one side of the agent's work and adds its verdicts.
#ifndef ZENTCTL_CHECK_H
#define ZENTCTL_CHECK_H

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "command.h"
#include "group.h"
#include "interface.h"
#include "segment.h"

namespace zentctl {

// How the agent is set up, or would be: from the command line of check, from a running agent, or from its
// unit.
struct AgentSetup {
    std::string target; // -R; empty: none
    std::string list;   // -F; empty: none
    std::string least;  // -g
    std::string most;   // -G
    std::string pidfile;
    std::string features; // ZENT_FEATURES
    bool is_known = false;
    std::string origin; // where all that was found, for the operator
};

// Reads the agent's own options from its words, the program's name included.
AgentSetup setup_of_words(const std::vector<std::string>& words);

// Interface: existence, state, address, kind, neighbours. False if nothing can be heard on it.
bool check_link(const std::string& name, Report& report);

// Running agents on the interface, the lock of the pid file, the unit. What they say of their set-up goes
// into *setup, which is left alone if there is none.
void check_agent(const std::string& name, AgentSetup* setup, Report& report);

// The variable's words; sets the features of the agent's sources in this process.
void check_features(const AgentSetup& setup, Report& report);

// Range and list: leaves them in the agent's scope, so that in_scope() answers as the agent would.
void check_scope(const AgentSetup& setup, Report& report);

// Name, port, route, refusal.
void check_target(const std::string& target, Report& report);

// Listens for so many seconds.
void check_segment(const std::string& name, long seconds, Report& report);

// The words of a shell-like line as systemd splits it: blanks, quotes, backslashes.
std::vector<std::string> split_words(const std::string& line);

} // namespace zentctl

#endif
