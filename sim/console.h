// The words in which someone at a terminal, or a script, is the host.

#pragma once

#include <chrono>
#include <functional>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/process.h"
#include "sim/simulated_host.h"

namespace sim {

// A command that can't be carried out, in one sentence. Nothing has been changed.
class ConsoleError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Carries out one command a line on a played host and on the guest's program, if one runs. One
// thread; the host and the program outlive it.
class Console {
public:
    using Words = std::vector<std::string>;

    Console(SimulatedHost& host, std::optional<Process>& program,
            std::function<void(const std::string&)> print);

    // False when the line asks for the end. Throws ConsoleError.
    bool execute(const std::string& line);

    // The commands with what they do, as text for a terminal.
    static std::string help();

private:
    struct Command;
    static const std::vector<Command>& commands();

    void add(const Words& words);
    void plug(const Words& words);
    void unplug(const Words& words);
    void rename(const Words& words);
    void remove(const Words& words);
    void setDefault(const Words& words);
    void sendUnknown(const Words& words);
    void fault(const Words& words);
    void link(const Words& words);
    void show();
    void results();
    void status();
    void waitIdle(const Words& words);
    void stop();
    void wait(const Words& words);
    void requireKnown(const std::string& id) const;

    SimulatedHost& m_host;
    std::optional<Process>& m_program;
    const std::function<void(const std::string&)> m_print;
    bool m_ended = false;
};

}  // namespace sim
