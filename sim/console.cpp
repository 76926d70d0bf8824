#include "sim/console.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <deque>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "cups/printer_names.h"
#include "cups/queue_creation.h"
#include "cups/usb_discovery.h"
#include "log/log_file.h"
#include "protocol/printing_format.h"
#include "sim/private_cups.h"
#include "sim/random_answers.h"

namespace sim {
namespace {

constexpr std::uint32_t kIdleSeconds = 30;
constexpr std::size_t kLogRecords = 10;
constexpr std::uint32_t kMaxWaitSeconds = 3600;
constexpr std::chrono::seconds kStopTime(20);
constexpr unsigned kDeviceWaitSeconds = qnt::kUsbWaitTries * qnt::kUsbWaitPauseSeconds;

// The requests that a fault can replace the answer to.
struct RequestName {
    const char* name;
    std::uint32_t requestType;
};
constexpr RequestName kRequestNames[] = {{"command", kRunLoopRequest},
                                         {"default", qnt::GetDefaultPrinter},
                                         {"deleted", qnt::UserDeletedPrinters},
                                         {"link", kLinkCall}};

struct FaultName {
    const char* name;
    Fault::Kind kind;
    bool takesValue;
};
constexpr FaultName kFaultNames[] = {
    {"cancel", Fault::Kind::kCancel, false},   {"status", Fault::Kind::kStatus, true},
    {"ask", Fault::Kind::kAskFor, true},       {"malformed", Fault::Kind::kMalformed, false},
    {"silence", Fault::Kind::kSilence, false}, {"errno", Fault::Kind::kWriteError, true}};

struct LinkName {
    const char* name;
    LinkMode mode;
};
constexpr LinkName kLinkNames[] = {
    {"accept", LinkMode::kAccept}, {"refuse", LinkMode::kRefuse}, {"again", LinkMode::kAskAgain}};

template <typename Named, std::size_t size>
Named find(const Named (&table)[size], const std::string& name, const char* what) {
    const auto* found =
        std::ranges::find_if(table, [&](const Named& entry) { return name == entry.name; });
    if (found == std::end(table))
        throw ConsoleError("unknown " + std::string(what) + " '" + name + "'");
    return *found;
}

// Decimal, or hexadecimal after 0x.
std::uint32_t number(const std::string& text) {
    const bool hexadecimal = text.starts_with("0x");
    const char* const start = text.data() + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(start, end, value, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end)
        throw ConsoleError("'" + text + "' is not a 32-bit number");
    return value;
}

std::chrono::seconds seconds(const Console::Words& words) {
    const std::uint32_t value = words.empty() ? kIdleSeconds : number(words.front());
    return std::chrono::seconds(std::min(value, kMaxWaitSeconds));
}

// Splits the line at blanks into at most `most` words; the last one is the rest of the line.
Console::Words split(const std::string& line, std::size_t most) {
    Console::Words words;
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

bool isPluggedIn(const std::string& id) {
    return !qnt::getUsbProductBySerial(id).empty();
}

}  // namespace

struct Console::Command {
    const char* name;
    std::size_t fewest;  // arguments
    std::size_t most;
    const char* arguments;
    const char* effect;
    void (Console::*carryOut)(const Words&);
};

const Console::Command Console::kCommands[] = {
    {"plug", 2, 2, "ID NAME",
     "share a printer: add its USB device, send CmdPrinterList and CmdAddPrinter", &Console::plug},
    {"unplug", 1, 1, "ID", "remove its USB device", &Console::unplug},
    {"rename", 2, 2, "ID NAME", "change its name and send CmdPrinterList", &Console::rename},
    {"default", 1, 1, "ID", "make it the host's default printer", &Console::setDefault},
    {"list", 0, 0, "", "send CmdPrinterList", &Console::list},
    {"add", 1, 1, "ID", "send CmdAddPrinter", &Console::add},
    {"delete", 1, 1, "ID", "remove it from the list and send CmdDeletePrinter", &Console::remove},
    {"delete-offline", 0, 0, "", "send CmdDeleteOfflinePrinters", &Console::sendDeleteOffline},
    {"wait-offline", 0, 0, "", "send CmdWaitAllOffline", &Console::sendWaitOffline},
    {"command", 1, 1, "CODE", "send a command with any code and no other items",
     &Console::sendUnknown},
    {"fault", 1, 3, "cancel|status N|ask N|malformed|silence|errno N [REQUEST]",
     "fail the next request of a kind: command (default), default, deleted or link",
     &Console::fault},
    {"random", 1, 2, "NUMBER [SEED]",
     "answer so many requests with random and malformed commands and sizes",
     &Console::randomAnswers},
    {"link", 1, 2, "accept|refuse|again [TIMES]",
     "set how the host answers the Open Kavelink link on the device", &Console::link},
    {"show", 0, 0, "", "print the host's printers: ID, NAME, and 'default'", &Console::show},
    {"guest", 0, 0, "", "print the guest's queues and its default", &Console::guest},
    {"log", 0, 1, "[COUNT]", "print the last records of the service's log (default: 10)",
     &Console::log},
    {"results", 0, 0, "", "print the results that the service has reported", &Console::results},
    {"status", 0, 0, "", "print the status messages that the service has sent", &Console::status},
    {"wait-idle", 0, 1, "[SECONDS]",
     "wait until no command is waiting and the service asks for one", &Console::waitIdle},
    {"wait", 1, 1, "SECONDS", "wait", &Console::wait},
    {"echo", 0, 1, "[TEXT]", "print the text", &Console::echo},
    {"stop", 0, 0, "", "send SIGTERM to the program of --run and print its exit code",
     &Console::stop},
    {"help", 0, 0, "", "print this list", &Console::printHelp},
    {"quit", 0, 0, "", "end, as at the end of the input", &Console::quit},
};

Console::Console(SimulatedHost& host, std::optional<Process>& program,
                 std::function<void(const std::string&)> print)
    : m_host(host), m_program(program), m_print(std::move(print)) {}

bool Console::execute(const std::string& line) {
    const Words head = split(line, 2);
    if (head.empty() || head[0].starts_with('#'))
        return true;
    const auto command = std::ranges::find(kCommands, head[0], &Command::name);
    if (command == std::end(kCommands))
        throw ConsoleError("unknown command '" + head[0] + "'; 'help' lists the commands");
    Words words = split(line, command->most + 1);
    words.erase(words.begin());
    if (command->most == 0 && head.size() > 1)
        throw ConsoleError(head[0] + " takes no arguments");
    if (words.size() < command->fewest)
        throw ConsoleError("usage: " + head[0] + " " + command->arguments);
    (this->*command->carryOut)(words);
    return !m_ended;
}

std::string Console::help() {
    std::string text = "Commands, one per line:\n";
    for (const Command& command : kCommands) {
        const std::string arguments = command.arguments;
        text += std::string("  ") + command.name + (arguments.empty() ? "" : " ") + arguments +
                "\n      " + command.effect + "\n";
    }
    text.pop_back();
    return text;
}

std::vector<std::string> Console::completions(bool firstWord) const {
    std::vector<std::string> words;
    if (firstWord)
        std::ranges::transform(kCommands, std::back_inserter(words), &Command::name);
    else
        std::ranges::transform(m_host.printers(), std::back_inserter(words), &HostPrinter::id);
    return words;
}

void Console::requireKnown(const std::string& id) const {
    const std::vector<HostPrinter> printers = m_host.printers();
    if (std::ranges::find(printers, id, &HostPrinter::id) == printers.end())
        throw ConsoleError("the host has no printer '" + id + "'");
}

std::optional<int> Console::exitCode() const {
    return m_program ? m_program->wait({}) : std::nullopt;
}

// A program that has ended never takes a command.
void Console::requireRunning() const {
    if (const std::optional<int> code = exitCode())
        throw ConsoleError("the program has ended with exit code " + std::to_string(*code));
}

void Console::send(HostCommand command) {
    requireRunning();
    m_host.send(std::move(command));
}

void Console::sendPrinterList() {
    send(printerList(m_host.printers()));
}

void Console::plug(const Words& words) {
    requireValid(words[0]);
    requireRunning();
    m_host.plug(words[0], words[1]);
    sendPrinterList();
    send(addPrinter(words[0]));
}

void Console::add(const Words& words) {
    requireValid(words[0]);
    send(addPrinter(words[0]));
    if (!isPluggedIn(words[0]))
        m_print("'" + words[0] + "' is not plugged in; the service waits for it for up to " +
                std::to_string(kDeviceWaitSeconds) + " seconds");
}

void Console::unplug(const Words& words) {
    requireKnown(words[0]);
    m_host.unplug(words[0]);
}

void Console::rename(const Words& words) {
    requireKnown(words[0]);
    requireRunning();
    m_host.rename(words[0], words[1]);
    sendPrinterList();
}

void Console::remove(const Words& words) {
    requireKnown(words[0]);
    requireRunning();
    m_host.forget(words[0]);
    send(deletePrinter(words[0]));
}

void Console::setDefault(const Words& words) {
    requireKnown(words[0]);
    requireRunning();
    m_host.setDefault(words[0]);
}

void Console::list(const Words&) {
    sendPrinterList();
}

void Console::sendDeleteOffline(const Words&) {
    send(deleteOffline());
}

void Console::sendWaitOffline(const Words&) {
    send(waitOffline());
}

void Console::sendUnknown(const Words& words) {
    send({number(words[0]), {}, {}});
}

void Console::fault(const Words& words) {
    const FaultName kind = find(kFaultNames, words[0], "fault");
    const std::size_t used = kind.takesValue ? 2 : 1;
    if (words.size() < used)
        throw ConsoleError("fault " + words[0] + " needs a number");
    if (words.size() > used + 1)
        throw ConsoleError("fault " + words[0] + " takes no number");
    const RequestName request =
        find(kRequestNames, words.size() > used ? words[used] : "command", "request");
    m_host.fault(
        request.requestType,
        {.kind = kind.kind, .value = kind.takesValue ? number(words[1]) : 0, .answer = {}});
}

void Console::randomAnswers(const Words& words) {
    RandomAnswers(words.size() > 1 ? number(words[1]) : 1).queue(m_host, number(words[0]));
}

void Console::link(const Words& words) {
    const LinkMode mode = find(kLinkNames, words[0], "link answer").mode;
    const std::uint32_t times = words.size() > 1 ? number(words[1]) : 1;
    m_host.setLinkMode(mode, static_cast<int>(std::min(times, 1'000'000u)));
}

void Console::show(const Words&) {
    for (const HostPrinter& printer : m_host.printers())
        m_print(printer.id + "\t" + printer.name + "\t" +
                (printer.id == m_host.defaultPrinter() ? "default" : ""));
}

void Console::guest(const Words&) {
    std::string lines = commandOutput("LC_ALL=C; export LC_ALL; lpstat -v 2>&1; lpstat -d 2>&1");
    lines.resize(lines.find_last_not_of('\n') + 1);
    m_print(lines);
}

void Console::log(const Words& words) {
    const std::size_t count = words.empty() ? kLogRecords : number(words[0]);
    std::ifstream file(qnt::logFilePath());
    std::deque<std::string> records;
    for (std::string record; std::getline(file, record);) {
        records.push_back(record);
        if (records.size() > count)
            records.pop_front();
    }
    std::ranges::for_each(records, m_print);
}

void Console::results(const Words&) {
    std::string line = "results:";
    for (const std::uint32_t result : m_host.results())
        line += " " + std::to_string(result);
    m_print(line);
}

void Console::status(const Words&) {
    std::string line = "status:";
    for (const Bytes& message : m_host.statusMessages())
        line += " " + statusState(message);
    m_print(line);
}

void Console::waitIdle(const Words& words) {
    const auto time = seconds(words);
    const auto isIdleOrEnded = [&] { return m_host.isIdle() || exitCode(); };
    if (!m_host.waitUntil(isIdleOrEnded, time))
        throw ConsoleError("the service is not idle after " + std::to_string(time.count()) +
                           " seconds");
    requireRunning();
    m_print("idle");
}

void Console::wait(const Words& words) {
    std::this_thread::sleep_for(seconds(words));
}

void Console::echo(const Words& words) {
    m_print(words.empty() ? "" : words[0]);
}

void Console::printHelp(const Words&) {
    m_print(help());
}

void Console::quit(const Words&) {
    m_ended = true;
}

// What an add that the service carries out now is waiting for; empty if it is not waiting.
std::string Console::awaitedDevice() const {
    const std::optional<HostCommand> command = m_host.currentCommand();
    if (!command || command->code != qnt::CmdAddPrinter || isPluggedIn(command->printerId))
        return {};
    return "; it waits for '" + command->printerId + "' to be plugged in, for " +
           std::to_string(kDeviceWaitSeconds) + " seconds at most";
}

void Console::stop(const Words&) {
    if (!m_program)
        throw ConsoleError("no program was started with --run");
    m_program->signal(SIGTERM);
    const std::optional<int> code = m_program->wait(kStopTime);
    if (!code)
        throw ConsoleError("the program still runs after " + std::to_string(kStopTime.count()) +
                           " seconds" + awaitedDevice());
    m_print("exit code " + std::to_string(*code));
}

}  // namespace sim
