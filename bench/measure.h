// Measurements of the whole service beside what else would do the same work. Each measurement runs
// the two in turn, round after round, and prints every value; what they mean together is
// report.py's business.

#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "sim/simulated_host.h"
#include "tests/support/private_cups.h"

namespace bench {

// Prints a line of a value: what was measured, of which size or kind, on whose side.
void printValue(const std::string& figure, const std::string& scale, const std::string& side,
                double value);

inline constexpr char kOurs[] = "qntspooler";
inline constexpr char kScript[] = "sh";

// The measurements. Each takes the number of its rounds; a single one is a trial, made small, that
// only shows that the measurement works. Each finds a private CUPS without queues, and leaves it
// so.
void measureAdd(int rounds);        // seconds from command to result
void measureRename(int rounds);     // the same for a list that renames twenty queues
void measureIdle(int rounds);       // CPU seconds a second, and memory
void measureLife(int rounds);       // seconds from start to request, from stop signal to exit
void measureExchanges(int rounds);  // exchanges a second

// What several of them need.

inline bool isTrial(int rounds) {
    return rounds == 1;
}

// The private CUPS.
pid_t cupsProcess();
// A started service, its log and output thrown away.
sim::Process startService();
// A queue of the kind that the service lists, without a driver.
void addRawQueue(int number);
void deleteAllQueues();
double secondsBetween(std::chrono::system_clock::time_point from,
                      std::chrono::system_clock::time_point to);
// The time that a command takes from its start to its end.
double secondsOf(const std::vector<std::string>& command);

}  // namespace bench
