// Measurements of the whole service, compared with what else would do the same work. Each measures
// the service and its counterpart in turn, for a number of rounds, and prints every value.

#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "sim/process.h"
#include "sim/simulated_host.h"

namespace bench {

using Clock = std::chrono::system_clock;  // as in the host's record of its exchanges
using Command = std::vector<std::string>;

// Each finds a private CUPS without queues.
void measureAdd(int rounds);     // seconds from command to result
void measureRename(int rounds);  // the same for a list that renames twenty queues
void measureIdle(int rounds);    // CPU seconds a second, and memory in KiB
void measureLife(int rounds);    // seconds of start and stop, exchanges a second
void measureSoak(int minutes);   // growth; fails if the service grows without bound

// So many guests at once: CPU seconds a second, memory, and seconds of adds and reports. Each guest
// is a process that runs measureGuest with its index and the folder in which the guests meet.
void measureFarm(int guests);
void measureGuest(int index, int guests, const std::string& folder);

void submitForever();  // one request to the request device, until it fails

// What several of them need. Failures throw std::runtime_error.
void printValue(const std::string& name, double value);
double secondsSince(Clock::time_point start, Clock::time_point end = Clock::now());
double secondsOf(const Command& command);           // from its start to its exit
double secondsToStop(sim::Process& process);        // from SIGTERM to its exit
sim::Process startQuietly(const Command& command);  // its output thrown away
void waitForIdle(const sim::SimulatedHost& host);   // until the service asks for a command
pid_t cupsProcess();                                // the private CUPS
// Sends a command once the service is idle. Returns the seconds until its result arrives.
double execute(sim::SimulatedHost& host, const sim::HostCommand& command);

// The command lines that the service gives the shell during `act`. Repeats `prepare` and `act`
// until two runs agree, as the service's listing of the queues, once a second, may come between.
std::vector<std::string> recordLines(const std::function<void()>& prepare,
                                     const std::function<void()>& act);
// Writes a script to a file in the working directory. Returns the command that runs it.
Command scriptOf(const std::string& name, const std::vector<std::string>& lines);

// Other daemons that idle in a guest, by name; those that are installed.
std::map<std::string, Command> otherDaemons();

}  // namespace bench
