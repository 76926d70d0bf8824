// qnthost: simulates the host of a guest. Mounts the request device and the USB devices, reads
// commands, and prints the exchanges.

#include <getopt.h>

#include <csignal>
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
constexpr int kMissingExitCode = 69;  // the machine lacks something

constexpr char kUsage[] =
    "usage: qnthost --log FOLDER [OPTION...] [PROGRAM [ARGUMENT...]]\n"
    "\n"
    "Simulates the host for a guest's printing service: the request device in /proc/driver,\n"
    "virtual USB printers in /sys/bus/usb, and a folder over /var/log, in a mount namespace that\n"
    "is not visible from outside. Needs root and /dev/fuse. Starts the program in the guest; the\n"
    "command 'stop' and the end of qnthost end it. Reads commands from standard input, with a\n"
    "prompt on a terminal, and prints each exchange with the service once it is answered: time,\n"
    "request (bytes sent/size of the answer buffer), answer, time for which it was held.\n"
    "\n"
    "  --log FOLDER         mount this folder over /var/log\n"
    "  --cups FOLDER        start a private cupsd with its files there, which the tools of CUPS\n"
    "                       reach with CUPS_SERVER=FOLDER/cups.sock (default: none is started)\n"
    "  --backdoor           refuse link calls on the device, and take them from the program as\n"
    "                       its hypervisor\n"
    "  --namespace-entered  use the current mount namespace, made by unshare -m, so that other\n"
    "                       programs in it can use the device\n"
    "  --help               print this text and the commands\n"
    "\n"
    "Prints 'ready' once the device is mounted. Exit codes: 0 at the end of the commands, 64 for\n"
    "wrong arguments, 69 if the machine lacks something.\n"
    "\n";

struct Options {
    std::string logFolder;
    std::string cupsFolder;
    int backdoor = 0;
    int namespaceEntered = 0;
    int help = 0;
    bool wrong = false;
    std::vector<std::string> program;
};

Options readOptions(int argc, char** argv) {
    Options options;
    const option known[] = {{"log", required_argument, nullptr, 'l'},
                            {"cups", required_argument, nullptr, 'c'},
                            {"backdoor", no_argument, &options.backdoor, 1},
                            {"namespace-entered", no_argument, &options.namespaceEntered, 1},
                            {"help", no_argument, &options.help, 1},
                            {nullptr, 0, nullptr, 0}};
    for (int key = 0; (key = getopt_long(argc, argv, "+", known, nullptr)) != -1;) {
        if (key == 'l')
            options.logFolder = optarg;
        else if (key == 'c')
            options.cupsFolder = optarg;
        options.wrong |= key == '?';
    }
    options.program.assign(argv + optind, argv + argc);
    options.wrong |= options.logFolder.empty() || (options.backdoor && options.program.empty());
    return options;
}

void readCommands(const Console& console) {
    const auto executeOrReport = [&](const std::string& line) {
        try {
            return execute(console, line);
        } catch (const std::exception& error) {
            std::cerr << "qnthost: " << error.what() << std::endl;
            return true;
        }
    };
    printLine("ready; 'help' lists the commands");
    readLines(executeOrReport, [&] { return completions(console); });
}

void simulateHost(const Options& options) {
    if (options.namespaceEntered)
        mountGuestFolders(options.logFolder);
    else
        enterGuestNamespace(options.logFolder);
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
    readCommands({host, program});
    if (program) {
        program->signal(SIGTERM);
        program->wait(kPatience);
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
