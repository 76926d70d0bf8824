// Commands of the host, beside the same command lines in one script.

#include <filesystem>
#include <stdexcept>

#include "bench/measure.h"
#include "bench/shell_recorder.h"

namespace bench {
namespace {

constexpr int kRenamed = 20;
constexpr int kRenamedInTrial = 2;
constexpr std::chrono::minutes kLongest(2);

std::string folderHere() {
    return std::filesystem::current_path();
}

// A service at work for a played host.
class CommandedService {
public:
    CommandedService() : m_service(startService()) { waitForIdle(); }

    sim::SimulatedHost& host() { return m_host; }

    // Seconds from the command to the arrival of its result.
    double carryOut(const sim::HostCommand& command) {
        waitForIdle();
        const std::size_t before = m_host.results().size();
        const auto start = std::chrono::system_clock::now();
        m_host.send(command);
        m_host.waitUntil([&] { return m_host.results().size() > before; }, kLongest);
        if (m_host.results().size() == before || m_host.results().back() != qnt::CmdDone)
            throw std::runtime_error("A command was not carried out.");
        return secondsBetween(start, m_host.exchanges(qnt::PrintingCmdAnswer).back().when);
    }

private:
    void waitForIdle() {
        if (!m_host.waitUntil([&] { return m_host.isIdle(); }))
            throw std::runtime_error("The service asks for no command.");
    }

    sim::SimulatedHost m_host;
    sim::Process m_service;
};

// Printers that have one name or another. The host would forget those whose queues the script
// takes away, so its list is kept here.
class RenamedPrinters {
public:
    RenamedPrinters(CommandedService& service, int count) : m_service(service) {
        for (int i = 0; i < count; ++i)
            m_printers.push_back({"TAG" + std::to_string(1000 + i), "Office " + std::to_string(i)});
        for (const sim::HostPrinter& printer : m_printers) {
            m_service.host().plug(printer.id, printer.name);
            m_service.carryOut(sim::addPrinter(printer.id));
        }
    }

    // All of the queues have the other name before.
    double rename(const std::string& newName) {
        for (std::size_t i = 0; i < m_printers.size(); ++i)
            m_printers[i].name = newName + " " + std::to_string(i);
        const std::size_t alike = queuesCalled(newName);
        const double seconds = m_service.carryOut(sim::printerList(m_printers));
        if (alike != 0 || queuesCalled(newName) != m_printers.size())
            throw std::runtime_error("The queues were not all renamed.");
        return seconds;
    }

private:
    static std::size_t queuesCalled(const std::string& name) {
        return std::stoul(sim::commandOutput("lpstat -e | grep -c '^" + name + "_'"));
    }

    CommandedService& m_service;
    std::vector<sim::HostPrinter> m_printers;
};

}  // namespace

void measureAdd(int rounds) {
    CommandedService service;
    service.host().plug("TAG1001", "Office Laser");
    const auto add = [&] { return service.carryOut(sim::addPrinter("TAG1001")); };
    const auto remove = [&] { service.carryOut(sim::deletePrinter("TAG1001")); };
    add();  // finds the driver, once in the service's life
    std::vector<std::string> script;
    {
        const ShellRecorder recorder(folderHere());
        script = scriptOf("add.sh", recordLines(recorder, remove, add));
    }
    for (int round = 0; round < rounds; ++round) {
        remove();
        printValue("add", "", kOurs, add());
        remove();
        printValue("add", "", kScript, secondsOf(script));
    }
    remove();
}

// The service renames to and the script fro.
void measureRename(int rounds) {
    CommandedService service;
    RenamedPrinters printers(service, isTrial(rounds) ? kRenamedInTrial : kRenamed);
    const auto to = [&] { return printers.rename("Floor"); };
    const auto fro = [&] { return printers.rename("Office"); };
    std::vector<std::string> script;
    {
        const ShellRecorder recorder(folderHere());
        script = scriptOf("rename.sh", recordLines(recorder, to, fro));
    }
    for (int round = 0; round < rounds; ++round) {
        printValue("rename", "", kOurs, to());
        printValue("rename", "", kScript, secondsOf(script));
    }
    deleteAllQueues();
}

}  // namespace bench
