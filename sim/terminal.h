// The output of qnthost, and its prompt on a terminal. The line editor has process-wide state.

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sim {

// Prints and flushes a line, above the one that is being edited. Any thread.
void printLine(const std::string& line);

// Calls `execute` with each line of standard input until it returns false or the input ends. On a
// terminal, a line is edited at a prompt, where the tab key completes the words that `words`
// returns when the prompt appears, and Ctrl-C discards the line, or ends the input as Ctrl-D does
// if there is none. Main thread only.
void readLines(const std::function<bool(const std::string& line)>& execute,
               const std::function<std::vector<std::string>()>& words);

}  // namespace sim
