// Commands of the host, start and stop.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench/measure.h"
#include "sim/private_cups.h"

namespace bench {
namespace {

namespace fs = std::filesystem;
using Action = std::function<void()>;

constexpr std::size_t kRenamed = 10;
constexpr std::size_t kRenamedInComparison = 2;
constexpr int kTries = 5;
constexpr std::chrono::milliseconds kSettling(300);

double secondsOf(const Command& command) {
    const auto start = Clock::now();
    sim::Process process = startQuietly(command);
    waitForEnd(process);
    return secondsSince(start);
}

// Tools of CUPS that append their call to the file $CALLS before they run, as long as the object
// exists. A service that is started meanwhile uses them until then.
class RecordedTools {
public:
    RecordedTools() {
        fs::create_directory(m_folder);
        for (const std::string tool : {"lpadmin", "lpinfo", "lpoptions", "lpstat"}) {
            std::string path = sim::commandOutput("command -v " + tool);
            path.pop_back();
            std::ofstream(m_folder / tool)
                << "#!/bin/sh\necho \"" << tool << " $*\" >>$CALLS\nexec " << path << " \"$@\"\n";
            fs::permissions(m_folder / tool, fs::perms::owner_all);
        }
        setenv("PATH", (m_folder.string() + ":" + std::getenv("PATH")).c_str(), 1);
        setenv("CALLS", fs::absolute("service-calls").c_str(), 1);
    }
    ~RecordedTools() { fs::remove_all(m_folder); }

    // Throws unless the script calls the tools as the service does during `act`. The
    // service's own listing, once a second, may follow; a try into which it falls is repeated.
    void compare(const Action& prepare, const Action& act, const Command& script) const {
        std::string service, expected;
        for (int tries = 0; tries < kTries; ++tries) {
            prepare();
            std::this_thread::sleep_for(kSettling);
            std::ofstream("service-calls", std::ios::trunc).flush();
            act();
            service = contents("service-calls");
            prepare();
            std::ofstream("script-calls", std::ios::trunc).flush();
            sim::Process process(script, "/dev/null", {{"CALLS", fs::absolute("script-calls")}});
            waitForEnd(process);
            expected = contents("script-calls");
            if (service == expected || service == expected + "lpstat -v\n")
                return;
        }
        throw std::runtime_error("The service calls\n" + service + "and bench/commands.sh\n" +
                                 expected);
    }

private:
    static std::string contents(const fs::path& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const fs::path m_folder = fs::absolute("tools");
};

struct CommandedService {
    // Returns the seconds until the command's result arrives.
    double execute(const sim::HostCommand& command) {
        waitForIdle(host);
        const std::size_t before = host.results().size();
        const auto start = Clock::now();
        host.send(command);
        waitForIdle(host);
        const std::vector<std::uint32_t> results = host.results();
        if (results.size() == before || results.back() != qnt::CmdDone)
            throw std::runtime_error("A command failed.");
        return secondsSince(start, host.exchanges(qnt::PrintingCmdAnswer).back().when);
    }

    std::optional<RecordedTools> tools{std::in_place};  // until the calls have been compared
    sim::SimulatedHost host;
    sim::Process process = startQuietly({QNT_SERVICE});
};

}  // namespace

void measureAdd(int rounds) {
    CommandedService service;
    service.host.plug("TAG1001", "Office");
    const auto add = [&] { return service.execute(sim::addPrinter("TAG1001")); };
    const auto remove = [&] { service.execute(sim::deletePrinter("TAG1001")); };
    const Command script = scriptOf({"add", "TAG1001", "Office"});
    add();  // looks the driver up, once in the service's life
    service.tools->compare(remove, add, script);
    service.tools.reset();
    for (int round = 0; round < rounds; ++round) {
        remove();
        printValue("add", add());
        remove();
        printValue("add/sh", secondsOf(script));
    }
}

void measureRename(int rounds) {
    CommandedService service;
    std::vector<sim::HostPrinter> printers;
    const auto addPrinters = [&](std::size_t count) {
        while (printers.size() < count) {
            const std::string number = std::to_string(printers.size());
            printers.push_back({"TAG" + number, "Office_" + number});
            service.host.plug(printers.back().id, printers.back().name);
            service.execute(sim::addPrinter(printers.back().id));
        }
    };
    const auto rename = [&](const std::string& name) {
        for (std::size_t i = 0; i < printers.size(); ++i)
            printers[i].name = name + "_" + std::to_string(i);
        return service.execute(sim::printerList(printers));
    };
    const auto there = [&] { rename("Floor"); };
    const auto back = [&] { return rename("Office"); };
    const auto script = [&] {
        return scriptOf({"rename_to", "Floor", "Office", std::to_string(printers.size())});
    };
    addPrinters(kRenamedInComparison);
    service.tools->compare(there, back, script());
    service.tools.reset();
    addPrinters(kRenamed);
    for (int round = 0; round < rounds; ++round) {
        there();
        printValue("rename", back());
        there();
        printValue("rename/sh", secondsOf(script()));
        if (std::stoul(sim::commandOutput("lpstat -e | grep -c ^Office_")) != kRenamed)
            throw std::runtime_error("The queues were not all renamed.");
    }
}

// The host cancels the open exchange when the service stops.
void measureLife(int rounds) {
    const sim::SimulatedHost host;
    for (int round = 0; round < rounds; ++round) {
        const std::size_t before = host.exchanges(qnt::GetPrintingCmd).size();
        const auto start = Clock::now();
        sim::Process service = startQuietly({QNT_SERVICE});
        waitForIdle(host);
        printValue("start", secondsSince(start, host.exchanges(qnt::GetPrintingCmd)[before].when));
        std::this_thread::sleep_for(kSettling);
        const auto signal = Clock::now();
        service.signal(SIGTERM);
        waitForEnd(service);
        printValue("stop", secondsSince(signal));
        printValue("start/sh", secondsOf(scriptOf({"start"})));
    }
}

}  // namespace bench
