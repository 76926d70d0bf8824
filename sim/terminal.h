// The output of qnthost, and its prompt on a terminal.

#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "posix/unique_fd.h"

namespace sim {

// One per process, as the line editor has process-wide state.
class Terminal {
public:
    using Execute = std::function<bool(const std::string& line)>;
    using Complete = std::function<std::vector<std::string>(bool firstWord)>;

    Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Prints and flushes a line, above the one that is being edited. Any thread.
    void print(const std::string& line);
    // Shows a prompt on standard input, which must be a terminal, and calls `execute` with each
    // line until it returns false or the input ends. `complete` returns the words that can stand
    // first in a line, or later. Main thread only.
    void readLines(const Execute& execute, const Complete& complete);

private:
    void takeLine(const char* line);
    void setEditing(bool editing);
    void refresh();
    bool printWaiting();  // with the mutex locked

    const qnt::UniqueFd m_wake;  // eventfd, readable when lines wait

    // Guarded by the mutex.
    std::mutex m_mutex;
    bool m_editing = false;
    std::vector<std::string> m_waiting;  // printed lines while a line is being edited

    // Main thread only.
    bool m_ended = false;
    Execute m_execute;
};

}  // namespace sim
