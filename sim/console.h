// The commands of qnthost, which a user types or a script contains.

#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/process.h"
#include "sim/simulated_host.h"

namespace sim {

// Why a command can't be carried out, in one sentence. Except after a timeout, nothing has changed.
class ConsoleError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the commands act on: a simulated host, and the guest's program if one was started.
struct Console {
    SimulatedHost& host;
    std::optional<Process>& program;
    std::function<void(const std::string&)> print;
    std::function<bool()> isInterrupted;  // ends a wait
};

// Carries out one line. Returns false after the command to quit. Throws ConsoleError.
bool execute(const Console& console, const std::string& line);
// The list of all commands, as text for a terminal.
std::string listOfCommands();
// The words that can stand first in a line, or later: the commands, the ids of the printers.
std::vector<std::string> completions(const Console& console, bool firstWord);

}  // namespace sim
