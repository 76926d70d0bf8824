// The output of qnthost, and its prompt on a terminal. The line editor has process-wide state.

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sim {

// Prints and flushes a line, above the one that is being edited. Any thread.
void printLine(const std::string& line);

// Shows a prompt on standard input, which must be a terminal, and calls `execute` with each line
// until it returns false or the input ends. Ctrl-C discards the line; typed once more, it ends the
// input. `complete` returns the words that can stand first in a line, or later. Call it on the main
// thread; all other threads must have blocked SIGINT.
void readLines(const std::function<bool(const std::string& line)>& execute,
               const std::function<std::vector<std::string>(bool firstWord)>& complete);

// Whether Ctrl-C was typed while `execute` runs. Main thread only.
bool isInterrupted();

}  // namespace sim
