// qnthost: simulates the host of a guest. Mounts the request device and the USB devices, reads
// commands, and prints the exchanges.

#include <getopt.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>

#include "sim/console.h"
#include "sim/guest_namespace.h"
#include "sim/hypervisor.h"
#include "sim/private_cups.h"
#include "sim/process.h"
#include "sim/simulated_host.h"
#include "sim/terminal.h"

namespace sim {
namespace {

constexpr int kUsageExitCode = 64;
constexpr int kMissingExitCode = 69;                 // the machine lacks something
constexpr std::chrono::seconds kProgramEndTime(10);  // after SIGTERM; then it is killed

constexpr char kUsage[] =
    "usage: qnthost [OPTION...] [--run PROGRAM [ARGUMENT...]]\n"
    "\n"
    "Simulates the host for a guest's printing service: the request device in /proc/driver,\n"
    "virtual USB printers in /sys/bus/usb, and a folder over /var/log, in a mount namespace that\n"
    "is not visible from outside. Needs root and /dev/fuse. Reads commands from standard input,\n"
    "with a prompt on a terminal, and prints each exchange with the service once it is answered:\n"
    "time, request (bytes sent/bytes of room for the answer), answer, time for which it was held.\n"
    "\n"
    "  --log FOLDER         mount this folder over /var/log (default: a new folder in /tmp)\n"
    "  --cups FOLDER        start a private cupsd with its files there, which the tools of CUPS\n"
    "                       reach with CUPS_SERVER=FOLDER/cups.sock (default: none is started)\n"
    "  --link TRANSPORT     'device' (default), or 'backdoor': refuse link calls on the device "
    "and\n"
    "                       take them from the program of --run as its hypervisor\n"
    "  --script FILE        read the commands from a file; the first that fails ends qnthost\n"
    "  --namespace-entered  use the current mount namespace, made by unshare -m, so that other\n"
    "                       programs in it can use the device\n"
    "  --quiet              print no exchanges\n"
    "  --output FILE        append the output of the program and of its tools to this file\n"
    "  --run PROGRAM...     start this program in the guest; 'stop' and the end of qnthost end it\n"
    "  --help               print this text and the commands\n"
    "\n"
    "Prints 'ready' once the device is mounted. Exit codes: 0 at the end of the commands, 1 after\n"
    "a failed script, 64 for wrong arguments, 69 if the machine lacks something.\n"
    "\n";

struct Options {
    std::string logFolder;
    std::string cupsFolder;
    std::string script;
    std::string output;
    std::string link = "device";
    bool namespaceEntered = false;
    bool quiet = false;
    bool help = false;
    bool wrong = false;
    std::vector<std::string> program;

    bool isBackdoor() const { return link == "backdoor"; }
};

Options readOptions(int argc, char** argv) {
    const option known[] = {{"log", required_argument, nullptr, 'l'},
                            {"cups", required_argument, nullptr, 'c'},
                            {"link", required_argument, nullptr, 'k'},
                            {"script", required_argument, nullptr, 's'},
                            {"namespace-entered", no_argument, nullptr, 'n'},
                            {"quiet", no_argument, nullptr, 'q'},
                            {"output", required_argument, nullptr, 'o'},
                            {"run", no_argument, nullptr, 'r'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    bool runs = false;
    const std::map<int, std::string*> texts = {{'l', &options.logFolder},
                                               {'c', &options.cupsFolder},
                                               {'k', &options.link},
                                               {'s', &options.script},
                                               {'o', &options.output}};
    const std::map<int, bool*> switches = {{'n', &options.namespaceEntered},
                                           {'q', &options.quiet},
                                           {'r', &runs},
                                           {'h', &options.help}};
    for (int key = 0; !runs && (key = getopt_long(argc, argv, "+h", known, nullptr)) != -1;) {
        if (texts.contains(key))
            *texts.at(key) = optarg;
        else if (switches.contains(key))
            *switches.at(key) = true;
        else
            options.wrong = true;
    }
    if (runs)
        options.program.assign(argv + optind, argv + argc);
    options.wrong |= runs == options.program.empty() || (!runs && optind != argc);
    options.wrong |= options.isBackdoor() ? !runs : options.link != "device";
    return options;
}

void enterNamespace(const Options& options, Terminal& terminal) {
    std::string folder = options.logFolder;
    if (folder.empty()) {
        char name[] = "/tmp/qnthost-log-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("Could not make a folder for the log in /tmp.");
        folder = name;
        terminal.print("log folder " + folder);
    }
    if (options.namespaceEntered)
        mountGuestFolders(folder);
    else
        enterGuestNamespace(folder);
}

// Returns the exit code.
int runScript(Console& console, Terminal& terminal, const std::string& path) {
    terminal.print("ready");
    std::ifstream script(path);
    int number = 0;
    try {
        for (std::string line; std::getline(script, line) && console.execute(line);)
            ++number;
    } catch (const ConsoleError& error) {
        std::cerr << path << ":" << number + 1 << ": " << error.what() << std::endl;
        return 1;
    }
    return 0;
}

void readCommands(Console& console, Terminal& terminal) {
    const auto execute = [&](const std::string& line) {
        try {
            return console.execute(line);
        } catch (const ConsoleError& error) {
            std::cerr << "qnthost: " << error.what() << std::endl;
            return true;
        }
    };
    if (isatty(STDIN_FILENO) == 1) {
        terminal.print("ready; 'help' lists the commands");
        terminal.readLines(execute, [&](bool first) { return console.completions(first); });
        return;
    }
    terminal.print("ready");
    for (std::string line; std::getline(std::cin, line) && execute(line);) {
    }
}

// The service's probe of the device is held until the hypervisor takes the instruction.
void startProgram(const Options& options, SimulatedHost& host,
                  std::optional<Hypervisor>& hypervisor, std::optional<Process>& program) {
    if (options.isBackdoor()) {
        host.setLinkMode(LinkMode::kRefuse);
        host.hold(kLinkCall);
    }
    program.emplace(options.program, std::map<std::string, std::string>{}, options.output);
    if (options.isBackdoor()) {
        hypervisor.emplace(program->pid(), [&host](Bytes message, int transfers) {
            host.receiveFromBackdoor(std::move(message), transfers);
        });
        host.release(kLinkCall);
    }
}

int simulateHost(const Options& options) {
    if (!options.script.empty() && access(options.script.c_str(), R_OK) != 0) {
        std::cerr << "qnthost: can't read " << options.script << std::endl;
        return kUsageExitCode;
    }
    Terminal terminal;
    const auto print = [&](const std::string& line) { terminal.print(line); };
    enterNamespace(options, terminal);
    std::optional<PrivateCups> cups;
    if (!options.cupsFolder.empty())
        cups.emplace(options.cupsFolder);
    SimulatedHost host(options.quiet ? nullptr : std::function<void(const std::string&)>(print));
    std::optional<Hypervisor> hypervisor;  // ends after the program
    std::optional<Process> program;
    if (!options.program.empty())
        startProgram(options, host, hypervisor, program);
    Console console(host, program, print);
    int exitCode = 0;
    if (options.script.empty())
        readCommands(console, terminal);
    else
        exitCode = runScript(console, terminal, options.script);
    if (program) {
        program->signal(SIGTERM);
        program->wait(kProgramEndTime);
    }
    return exitCode;
}

int runHost(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    if (options.help) {
        std::cout << kUsage << Console::help() << std::endl;
        return 0;
    }
    if (options.wrong) {
        std::cerr << "qnthost: wrong arguments; --help prints the usage" << std::endl;
        return kUsageExitCode;
    }
    try {
        return simulateHost(options);
    } catch (const std::exception& error) {
        std::cerr << "qnthost: " << error.what() << std::endl;
        return kMissingExitCode;
    }
}

}  // namespace
}  // namespace sim

int main(int argc, char** argv) {
    return sim::runHost(argc, argv);
}
