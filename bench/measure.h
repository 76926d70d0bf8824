// Measurements of the whole service, compared with a script of the same command lines where there
// is one. Each prints every value of a number of rounds.

#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "sim/process.h"
#include "sim/simulated_host.h"

namespace bench {

using Clock = std::chrono::system_clock;  // as in the host's record of its exchanges
using Command = std::vector<std::string>;

// Each finds a private CUPS without queues.
void measureAdd(int rounds);     // seconds from command to result
void measureRename(int rounds);  // the same for a list that renames ten queues
void measureLife(int rounds);    // seconds of start and stop
void measureIdle(int rounds);    // CPU seconds a second, and memory in KiB
void measureWatch(int rounds);   // CPU seconds a second of the unit that starts the service again

// What several of them need. Failures throw std::runtime_error.
void printValue(const std::string& name, double value);
double secondsSince(Clock::time_point start, Clock::time_point end = Clock::now());
sim::Process startQuietly(const Command& command);  // its output thrown away
Command scriptOf(Command functionAndArguments);     // of commands.sh
void waitForEnd(sim::Process& process);
void waitForIdle(const sim::SimulatedHost& host);  // until the service asks for a command
pid_t cupsProcess();                               // the private CUPS

}  // namespace bench
