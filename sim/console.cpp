#include "sim/console.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "cups/printer_names.h"
#include "log/log_file.h"
#include "sim/guest_namespace.h"
#include "sim/terminal.h"

namespace sim {
namespace {

using Error = std::runtime_error;
using Words = std::vector<std::string>;

std::uint32_t number(const std::string& text) {
    std::uint32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [unread, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || unread != end)
        throw Error("'" + text + "' is not a 32-bit number");
    return value;
}

// The service rejects other ids, so a command with one would stay pending for ever.
void requireValid(const std::string& id) {
    if (!qnt::isValidPrinterId(id))
        throw Error("'" + id + "' can't be the id of a host printer: an id begins with '" +
                    std::string(qnt::kHostIdStart) + "', contains no '=' and has at most " +
                    std::to_string(qnt::kLongestId) + " bytes");
}

void requireKnown(const Console& console, const std::string& id) {
    const std::vector<HostPrinter> printers = console.host.printers();
    if (std::ranges::find(printers, id, &HostPrinter::id) == printers.end())
        throw Error("the host has no printer '" + id + "'");
}

// Prints the output of a command of the guest.
void show(const std::string& command) {
    std::string lines = commandOutput(command);
    lines.resize(lines.find_last_not_of('\n') + 1);
    printLine(lines);
}

// None while the program runs, and if none was started.
std::optional<int> exitCode(const Console& console) {
    return console.program ? console.program->wait({}) : std::nullopt;
}

void waitIdle(const Console& console) {
    waitUntil([&] { return console.host.isIdle() || exitCode(console); });
    if (const std::optional<int> code = exitCode(console))
        throw Error("the program has ended with exit code " + std::to_string(*code));
    if (!console.host.isIdle())
        throw Error("the service is not idle after a minute");
    printLine("idle");
}

void stop(const Console& console) {
    if (!console.program)
        throw Error("no program was started");
    console.program->signal(SIGTERM);
    const std::optional<int> code = console.program->wait(kPatience);
    if (!code)
        throw Error("the program still runs after a minute");
    printLine("exit code " + std::to_string(*code));
}

// The usage is the name and the arguments: at most two, of which the second is the rest of the
// line.
struct Command {
    std::string_view usage;
    const char* effect;
    void (*carryOut)(const Console& console, const Words& arguments);
};

constexpr Command kCommands[] = {
    {"plug ID NAME", "share a printer: add its USB device, send CmdPrinterList and CmdAddPrinter",
     [](const Console& console, const Words& arguments) {
         requireValid(arguments[0]);
         console.host.plug(arguments[0], arguments[1]);
         console.host.sendPrinterList();
         console.host.send(addPrinter(arguments[0]));
     }},
    {"unplug ID", "remove its USB device",
     [](const Console& console, const Words& arguments) {
         requireKnown(console, arguments[0]);
         unplugUsbPrinter(arguments[0]);
     }},
    {"rename ID NAME", "change its name and send CmdPrinterList",
     [](const Console& console, const Words& arguments) {
         requireKnown(console, arguments[0]);
         console.host.rename(arguments[0], arguments[1]);
         console.host.sendPrinterList();
     }},
    {"default ID", "make it the host's default printer",
     [](const Console& console, const Words& arguments) {
         requireKnown(console, arguments[0]);
         console.host.setDefault(arguments[0]);
     }},
    {"delete ID", "remove it from the list and send CmdDeletePrinter",
     [](const Console& console, const Words& arguments) {
         requireKnown(console, arguments[0]);
         console.host.forget(arguments[0]);
         console.host.send(deletePrinter(arguments[0]));
     }},
    {"command CODE",
     "send a command with any code and no other items, such as 3 (CmdDeleteOfflinePrinters)",
     [](const Console& console, const Words& arguments) {
         console.host.send({number(arguments[0]), {}, {}});
     }},
    {"ask SIZE", "answer the next request for a command with the buffer size that is required",
     [](const Console& console, const Words& arguments) {
         console.host.answerNext(kRunLoopRequest, askFor(number(arguments[0])));
     }},
    {"show", "print the host's printers: ID, NAME, and 'default'",
     [](const Console& console, const Words&) {
         for (const auto& [id, name] : console.host.printers())
             printLine(std::string(id).append("\t").append(name).append(
                 id == console.host.defaultPrinter() ? "\tdefault" : "\t"));
     }},
    {"guest", "print the guest's queues and its default",
     [](const Console&, const Words&) { show("lpstat -v 2>&1; lpstat -d 2>&1"); }},
    {"log COUNT", "print this number of records from the end of the service's log",
     [](const Console&, const Words& arguments) {
         show("tail -n " + std::to_string(number(arguments[0])) + " " + qnt::logFilePath());
     }},
    {"results", "print the results that the service has reported",
     [](const Console& console, const Words&) {
         std::string line = "results:";
         for (const std::uint32_t result : console.host.results())
             line += " " + std::to_string(result);
         printLine(line);
     }},
    {"status", "print the status messages that the service has sent",
     [](const Console& console, const Words&) {
         std::string line = "status:";
         for (const Bytes& message : console.host.statusMessages())
             line += " " + statusState(message);
         printLine(line);
     }},
    {"wait-idle",
     "wait until no command is waiting and the service asks for one, for a minute at most",
     [](const Console& console, const Words&) { waitIdle(console); }},
    {"echo TEXT", "print the text",
     [](const Console&, const Words& arguments) { printLine(arguments[0]); }},
    {"stop", "send SIGTERM to the program and print its exit code",
     [](const Console& console, const Words&) { stop(console); }},
    {"help", "print this list", [](const Console&, const Words&) { printLine(listOfCommands()); }},
    {"quit", "end, as at the end of the input", nullptr},
};

std::string nameOf(const Command& command) {
    return std::string(command.usage.substr(0, command.usage.find(' ')));
}

}  // namespace

bool execute(const Console& console, const std::string& line) {
    std::istringstream input(line);
    std::string name, argument;
    if (!(input >> name))
        return true;
    const auto* command = std::ranges::find(kCommands, name, nameOf);
    if (command == std::end(kCommands))
        throw Error("unknown command '" + name + "'; 'help' lists the commands");
    Words arguments;
    if (input >> argument)
        arguments.push_back(argument);
    if (std::getline(input >> std::ws, argument))
        arguments.push_back(argument);
    if (std::ssize(arguments) != std::ranges::count(command->usage, ' '))
        throw Error("usage: " + std::string(command->usage));
    if (command->carryOut == nullptr)
        return false;
    command->carryOut(console, arguments);
    return true;
}

std::string listOfCommands() {
    std::string text = "Commands, one per line:";
    for (const Command& command : kCommands)
        text.append("\n  ").append(command.usage).append("\n      ").append(command.effect);
    return text;
}

std::vector<std::string> completions(const Console& console) {
    std::vector<std::string> words;
    std::ranges::transform(kCommands, std::back_inserter(words), nameOf);
    std::ranges::transform(console.host.printers(), std::back_inserter(words), &HostPrinter::id);
    return words;
}

}  // namespace sim
