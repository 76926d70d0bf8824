#include "sim/console.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <sstream>

#include "cups/printer_names.h"
#include "log/log_file.h"
#include "protocol/printing_format.h"
#include "sim/guest_namespace.h"

namespace sim {
namespace {

using Words = std::vector<std::string>;

constexpr char kIdleSeconds[] = "30";
constexpr char kLogRecords[] = "10";
constexpr std::chrono::seconds kStopTime(60);

struct Fault {
    const char* name;
    bool takesNumber;
    Reply (*reply)(std::uint32_t number);
};
constexpr Fault kFaults[] = {
    {"cancel", false, [](std::uint32_t) { return Reply{.status = qnt::kRequestCanceled}; }},
    {"status", true, [](std::uint32_t number) { return Reply{.status = number}; }},
    {"ask", true, askFor},
    {"malformed", false, [](std::uint32_t) { return malformed(); }},
    {"errno", true, [](std::uint32_t number) {
         const int error = static_cast<int>(number);
         if (number == 0 || strerrorname_np(error) == nullptr)
             throw ConsoleError("there is no errno " + std::to_string(number));
         return Reply{.error = error};
     }}};

// Decimal, or hexadecimal after 0x.
std::uint32_t number(const std::string& text) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 0);
    if (*end != '\0' || value > std::numeric_limits<std::uint32_t>::max())
        throw ConsoleError("'" + text + "' is not a 32-bit number");
    return static_cast<std::uint32_t>(value);
}

// Splits the line at blanks into at most `most` words; the last one is the rest of the line.
Words split(const std::string& line, std::size_t most) {
    Words words;
    std::istringstream input(line);
    for (std::string word; words.size() + 1 < most && input >> word;)
        words.push_back(word);
    std::string rest;
    std::getline(input >> std::ws, rest);
    if (const std::size_t last = rest.find_last_not_of(" \t\r"); last != std::string::npos)
        words.push_back(rest.substr(0, last + 1));
    return words;
}

// The service rejects other ids, so a command with one would stay pending for ever.
void requireValid(const std::string& id) {
    if (!qnt::isValidPrinterId(id))
        throw ConsoleError("'" + id + "' can't be the id of a host printer: an id begins with '" +
                           std::string(qnt::kHostIdStart) + "', contains no '=' and has at most " +
                           std::to_string(qnt::kLongestId) + " bytes");
}

std::optional<int> exitCode(const Console& console) {
    return console.program ? console.program->wait({}) : std::nullopt;
}

// A program that has ended never takes a command.
void requireRunning(const Console& console) {
    if (const std::optional<int> code = exitCode(console))
        throw ConsoleError("the program has ended with exit code " + std::to_string(*code));
}

void requireKnown(const Console& console, const std::string& id) {
    const std::vector<HostPrinter> printers = console.host.printers();
    if (std::ranges::find(printers, id, &HostPrinter::id) == printers.end())
        throw ConsoleError("the host has no printer '" + id + "'");
    requireRunning(console);
}

// Prints the output of a command of the guest.
void show(const Console& console, const std::string& command) {
    std::string lines = commandOutput("LC_ALL=C; export LC_ALL; " + command);
    lines.resize(lines.find_last_not_of('\n') + 1);
    console.print(lines);
}

void fault(const Console& console, const Words& words) {
    const auto* fault = std::ranges::find(kFaults, words[0], &Fault::name);
    if (fault == std::end(kFaults))
        throw ConsoleError("unknown fault '" + words[0] + "'");
    if (fault->takesNumber != (words.size() > 1))
        throw ConsoleError("fault " + words[0] + (fault->takesNumber ? " needs a" : " takes no") +
                           " number");
    const std::uint32_t value = fault->takesNumber ? number(words[1]) : 0;
    console.host.answerNext(kRunLoopRequest, fault->reply(value));
}

void waitIdle(const Console& console, std::uint32_t seconds) {
    const auto ends = [&] {
        return console.host.isIdle() || exitCode(console) || console.isInterrupted();
    };
    const bool ended = waitUntil(ends, std::chrono::seconds(seconds));
    requireRunning(console);
    if (!ended || !console.host.isIdle())
        throw ConsoleError(ended ? "the wait was interrupted"
                                 : "the service is not idle after " + std::to_string(seconds) +
                                       " seconds");
    console.print("idle");
}

void stop(const Console& console) {
    if (!console.program)
        throw ConsoleError("no program was started with --run");
    console.program->signal(SIGTERM);
    const std::optional<int> code = console.program->wait(kStopTime);
    if (!code)
        throw ConsoleError("the program still runs after " + std::to_string(kStopTime.count()) +
                           " seconds");
    console.print("exit code " + std::to_string(*code));
}

struct Command {
    const char* name;
    std::size_t fewest;  // arguments
    std::size_t most;
    const char* arguments;
    const char* effect;
    void (*carryOut)(const Console& console, const Words& words);
};

constexpr Command kCommands[] = {
    {"plug", 2, 2, "ID NAME",
     "share a printer: add its USB device, send CmdPrinterList and CmdAddPrinter",
     [](const Console& console, const Words& words) {
         requireValid(words[0]);
         requireRunning(console);
         console.host.plug(words[0], words[1]);
         console.host.sendPrinterList();
         console.host.send(addPrinter(words[0]));
     }},
    {"unplug", 1, 1, "ID", "remove its USB device",
     [](const Console& console, const Words& words) {
         requireKnown(console, words[0]);
         unplugUsbPrinter(words[0]);
     }},
    {"rename", 2, 2, "ID NAME", "change its name and send CmdPrinterList",
     [](const Console& console, const Words& words) {
         requireKnown(console, words[0]);
         console.host.rename(words[0], words[1]);
         console.host.sendPrinterList();
     }},
    {"default", 1, 1, "ID", "make it the host's default printer",
     [](const Console& console, const Words& words) {
         requireKnown(console, words[0]);
         console.host.setDefault(words[0]);
     }},
    {"delete", 1, 1, "ID", "remove it from the list and send CmdDeletePrinter",
     [](const Console& console, const Words& words) {
         requireKnown(console, words[0]);
         console.host.forget(words[0]);
         console.host.send(deletePrinter(words[0]));
     }},
    {"command", 1, 1, "CODE",
     "send a command with any code and no other items, such as 3 (CmdDeleteOfflinePrinters)",
     [](const Console& console, const Words& words) {
         const std::uint32_t code = number(words[0]);
         requireRunning(console);
         console.host.send({code, {}, {}});
     }},
    {"fault", 1, 2, "cancel|status N|ask N|malformed|errno N",
     "replace the answer to the next request for a command", fault},
    {"show", 0, 0, "", "print the host's printers: ID, NAME, and 'default'",
     [](const Console& console, const Words&) {
         for (const auto& [id, name] : console.host.printers())
             console.print(std::string(id).append("\t").append(name).append(
                 id == console.host.defaultPrinter() ? "\tdefault" : "\t"));
     }},
    {"guest", 0, 0, "", "print the guest's queues and its default",
     [](const Console& console, const Words&) { show(console, "lpstat -v 2>&1; lpstat -d 2>&1"); }},
    {"log", 0, 1, "[COUNT]", "print the last records of the service's log (default: 10)",
     [](const Console& console, const Words& words) {
         const std::uint32_t count = number(words.empty() ? kLogRecords : words[0]);
         show(console, "tail -n " + std::to_string(count) + " " + qnt::logFilePath());
     }},
    {"results", 0, 0, "", "print the results that the service has reported",
     [](const Console& console, const Words&) {
         std::string line = "results:";
         for (const std::uint32_t result : console.host.results())
             line += " " + std::to_string(result);
         console.print(line);
     }},
    {"status", 0, 0, "", "print the status messages that the service has sent",
     [](const Console& console, const Words&) {
         std::string line = "status:";
         for (const Bytes& message : console.host.statusMessages())
             line += " " + statusState(message);
         console.print(line);
     }},
    {"wait-idle", 0, 1, "[SECONDS]",
     "wait until no command is waiting and the service asks for one (default: 30)",
     [](const Console& console, const Words& words) {
         waitIdle(console, number(words.empty() ? kIdleSeconds : words[0]));
     }},
    {"echo", 0, 1, "[TEXT]", "print the text",
     [](const Console& console, const Words& words) {
         console.print(words.empty() ? "" : words[0]);
     }},
    {"stop", 0, 0, "", "send SIGTERM to the program of --run and print its exit code",
     [](const Console& console, const Words&) { stop(console); }},
    {"help", 0, 0, "", "print this list",
     [](const Console& console, const Words&) { console.print(listOfCommands()); }},
    {"quit", 0, 0, "", "end, as at the end of the input", nullptr},
};

}  // namespace

bool execute(const Console& console, const std::string& line) {
    const Words head = split(line, 2);
    if (head.empty() || head[0].starts_with('#'))
        return true;
    const auto* command = std::ranges::find(kCommands, head[0], &Command::name);
    if (command == std::end(kCommands))
        throw ConsoleError("unknown command '" + head[0] + "'; 'help' lists the commands");
    Words words = split(line, command->most + 1);
    words.erase(words.begin());
    if (command->most == 0 && head.size() > 1)
        throw ConsoleError(head[0] + " takes no arguments");
    if (words.size() < command->fewest)
        throw ConsoleError("usage: " + head[0] + " " + command->arguments);
    if (command->carryOut == nullptr)
        return false;
    command->carryOut(console, words);
    return true;
}

std::string listOfCommands() {
    std::string text = "Commands, one per line:\n";
    for (const Command& command : kCommands) {
        const std::string arguments = command.arguments;
        text += std::string("  ") + command.name + (arguments.empty() ? "" : " ") + arguments +
                "\n      " + command.effect + "\n";
    }
    text.pop_back();
    return text;
}

std::vector<std::string> completions(const Console& console, bool firstWord) {
    std::vector<std::string> words;
    if (firstWord)
        std::ranges::transform(kCommands, std::back_inserter(words), &Command::name);
    else
        std::ranges::transform(console.host.printers(), std::back_inserter(words),
                               &HostPrinter::id);
    return words;
}

}  // namespace sim
