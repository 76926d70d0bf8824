// The commands of qnthost, which a user types or a script contains.

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

// Why a command can't be carried out, in one sentence. Except after a timeout, nothing has changed.
class ConsoleError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Carries out one command per line on a simulated host and on the guest's program, if one was
// started. One thread only. The host and the program must outlive it.
class Console {
public:
    using Words = std::vector<std::string>;

    Console(SimulatedHost& host, std::optional<Process>& program,
            std::function<void(const std::string&)> print);

    // False after the command to quit. Throws ConsoleError.
    bool execute(const std::string& line);

    // The list of all commands, as text for a terminal.
    static std::string help();
    // The words that can stand first in a line, or later: the commands, the ids of the printers.
    std::vector<std::string> completions(bool firstWord) const;

private:
    struct Command;
    static const Command kCommands[];

    // One for each command.
    void plug(const Words& words);
    void unplug(const Words& words);
    void rename(const Words& words);
    void setDefault(const Words& words);
    void list(const Words& words);
    void add(const Words& words);
    void remove(const Words& words);
    void sendDeleteOffline(const Words& words);
    void sendWaitOffline(const Words& words);
    void sendUnknown(const Words& words);
    void fault(const Words& words);
    void randomAnswers(const Words& words);
    void link(const Words& words);
    void show(const Words& words);
    void guest(const Words& words);
    void log(const Words& words);
    void results(const Words& words);
    void status(const Words& words);
    void waitIdle(const Words& words);
    void wait(const Words& words);
    void echo(const Words& words);
    void stop(const Words& words);
    void printHelp(const Words& words);
    void quit(const Words& words);

    void requireKnown(const std::string& id) const;
    void requireRunning() const;
    void send(HostCommand command);
    void sendPrinterList();
    std::optional<int> exitCode() const;
    std::string awaitedDevice() const;

    SimulatedHost& m_host;
    std::optional<Process>& m_program;
    const std::function<void(const std::string&)> m_print;
    bool m_ended = false;
};

}  // namespace sim
