// The commands of qnthost, which a user types or a script contains.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/process.h"
#include "sim/simulated_host.h"

namespace sim {

// What the commands act on: a simulated host, and the guest's program if one was started.
struct Console {
    SimulatedHost& host;
    std::optional<Process>& program;
};

// Carries out one line. Returns false after the command to quit. Throws a std::exception with one
// sentence if it can't be carried out; except after a timeout, nothing has changed then.
bool execute(const Console& console, const std::string& line);
// The list of all commands, as text for a terminal.
std::string listOfCommands();
// The commands and the ids of the printers.
std::vector<std::string> completions(const Console& console);

}  // namespace sim
