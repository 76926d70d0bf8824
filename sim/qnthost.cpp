// qnthost: simulates the host of a guest. Mounts the request device and the USB devices, reads
// commands, and prints the exchanges.

#include <getopt.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

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
    "time, request (bytes sent/size of the answer buffer), answer, time for which it was held.\n"
    "\n"
    "  --log FOLDER         mount this folder over /var/log (default: a new folder in /tmp)\n"
    "  --cups FOLDER        start a private cupsd with its files there, which the tools of CUPS\n"
    "                       reach with CUPS_SERVER=FOLDER/cups.sock (default: none is started)\n"
    "  --backdoor           refuse link calls on the device, and take them from the program of\n"
    "                       --run as its hypervisor\n"
    "  --namespace-entered  use the current mount namespace, made by unshare -m, so that other\n"
    "                       programs in it can use the device\n"
    "  --run PROGRAM...     start this program in the guest; 'stop' and the end of qnthost end it\n"
    "  --help               print this text and the commands\n"
    "\n"
    "Prints 'ready' once the device is mounted. Exit codes: 0 at the end of the commands, 64 for\n"
    "wrong arguments, 69 if the machine lacks something.\n"
    "\n";

struct Options {
    std::string logFolder;
    std::string cupsFolder;
    bool backdoor = false;
    bool namespaceEntered = false;
    bool help = false;
    bool wrong = false;
    std::vector<std::string> program;
};

Options readOptions(int argc, char** argv) {
    const option known[] = {{"log", required_argument, nullptr, 'l'},
                            {"cups", required_argument, nullptr, 'c'},
                            {"backdoor", no_argument, nullptr, 'b'},
                            {"namespace-entered", no_argument, nullptr, 'n'},
                            {"run", no_argument, nullptr, 'r'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    int key = 0;
    while (key != 'r' && (key = getopt_long(argc, argv, "+h", known, nullptr)) != -1) {
        if (key == 'l')
            options.logFolder = optarg;
        else if (key == 'c')
            options.cupsFolder = optarg;
        options.backdoor |= key == 'b';
        options.namespaceEntered |= key == 'n';
        options.help |= key == 'h';
        options.wrong |= key == '?';
    }
    const bool runs = key == 'r';
    options.program.assign(argv + optind, argv + argc);
    options.wrong |= runs == options.program.empty() || (options.backdoor && !runs);
    return options;
}

void enterNamespace(const Options& options) {
    std::string folder = options.logFolder;
    if (folder.empty()) {
        char name[] = "/tmp/qnthost-log-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("Could not make a folder for the log in /tmp.");
        folder = name;
        printLine("log folder " + folder);
    }
    if (options.namespaceEntered)
        mountGuestFolders(folder);
    else
        enterGuestNamespace(folder);
}

void readCommands(const Console& console) {
    const auto executeOrReport = [&](const std::string& line) {
        try {
            return execute(console, line);
        } catch (const ConsoleError& error) {
            std::cerr << "qnthost: " << error.what() << std::endl;
            return true;
        }
    };
    if (isatty(STDIN_FILENO) == 1) {
        printLine("ready; 'help' lists the commands");
        readLines(executeOrReport, [&](bool first) { return completions(console, first); });
        return;
    }
    printLine("ready");
    for (std::string line; std::getline(std::cin, line) && executeOrReport(line);) {
    }
}

void simulateHost(const Options& options) {
    enterNamespace(options);
    std::optional<PrivateCups> cups;
    if (!options.cupsFolder.empty())
        cups.emplace(options.cupsFolder);
    SimulatedHost host(printLine);
    std::optional<Hypervisor> hypervisor;  // ends after the program
    std::optional<Process> program;
    if (options.backdoor)
        host.hold(kLinkCall);  // until the hypervisor takes the instruction
    if (!options.program.empty())
        program.emplace(options.program);
    if (options.backdoor)
        hypervisor.emplace(program->pid(), host);
    readCommands({host, program, printLine, isInterrupted});
    if (program) {
        program->signal(SIGTERM);
        program->wait(kProgramEndTime);
    }
}

int runHost(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    if (options.help) {
        std::cout << kUsage << listOfCommands() << std::endl;
        return 0;
    }
    if (options.wrong) {
        std::cerr << "qnthost: wrong arguments; --help prints the usage" << std::endl;
        return kUsageExitCode;
    }
    try {
        simulateHost(options);
        return 0;
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
