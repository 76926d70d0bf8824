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
#include <mutex>

#include "sim/console.h"
#include "sim/guest_namespace.h"
#include "sim/private_cups.h"
#include "sim/process.h"
#include "sim/simulated_host.h"

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
    "and prints each exchange with the service once it is answered: time, request (bytes sent/\n"
    "bytes of room for the answer), answer, time for which the host held the request.\n"
    "\n"
    "  --log FOLDER         mount this folder over /var/log (default: a new folder in /tmp)\n"
    "  --cups FOLDER        start a private cupsd with its files there; the tools of CUPS reach "
    "it\n"
    "                       with CUPS_SERVER=FOLDER/cups.sock (default: the cupsd of CUPS_SERVER)\n"
    "  --script FILE        read the commands from a file; the first that fails ends qnthost\n"
    "  --namespace-entered  use the current mount namespace, made by unshare -m, so that other\n"
    "                       programs in it can use the device\n"
    "  --quiet              print no exchanges\n"
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
    bool namespaceEntered = false;
    bool quiet = false;
    bool help = false;
    bool wrong = false;
    std::vector<std::string> program;
};

Options readOptions(int argc, char** argv) {
    const option known[] = {{"log", required_argument, nullptr, 'l'},
                            {"cups", required_argument, nullptr, 'c'},
                            {"script", required_argument, nullptr, 's'},
                            {"namespace-entered", no_argument, nullptr, 'n'},
                            {"quiet", no_argument, nullptr, 'q'},
                            {"run", no_argument, nullptr, 'r'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    bool runs = false;
    for (int key = 0; !runs && (key = getopt_long(argc, argv, "+h", known, nullptr)) != -1;) {
        switch (key) {
            case 'l':
                options.logFolder = optarg;
                break;
            case 'c':
                options.cupsFolder = optarg;
                break;
            case 's':
                options.script = optarg;
                break;
            case 'n':
                options.namespaceEntered = true;
                break;
            case 'q':
                options.quiet = true;
                break;
            case 'r':
                runs = true;
                break;
            case 'h':
                options.help = true;
                break;
            default:
                options.wrong = true;
        }
    }
    if (runs)
        options.program.assign(argv + optind, argv + argc);
    options.wrong = options.wrong || runs == options.program.empty() || (!runs && optind != argc);
    return options;
}

// Prints and flushes one line; called on several threads.
void printLine(const std::string& line) {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    std::cout << line << std::endl;
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

// Returns the exit code.
int readCommands(Console& console, std::istream& input, const std::string& script) {
    int number = 0;
    for (std::string line; std::getline(input, line);) {
        ++number;
        try {
            if (!console.execute(line))
                return 0;
        } catch (const ConsoleError& error) {
            const std::string place =
                script.empty() ? "qnthost" : script + ":" + std::to_string(number);
            std::cerr << place << ": " << error.what() << std::endl;
            if (!script.empty())
                return 1;
        }
    }
    return 0;
}

int simulateHost(const Options& options) {
    std::ifstream script(options.script);
    if (!options.script.empty() && !script) {
        std::cerr << "qnthost: can't read " << options.script << std::endl;
        return kUsageExitCode;
    }
    enterNamespace(options);
    std::optional<PrivateCups> cups;
    if (!options.cupsFolder.empty())
        cups.emplace(options.cupsFolder);
    SimulatedHost host(options.quiet ? nullptr : std::function(printLine));
    std::optional<Process> program;
    if (!options.program.empty())
        program.emplace(options.program);
    printLine("ready");
    Console console(host, program, printLine);
    const int exitCode =
        readCommands(console, options.script.empty() ? std::cin : script, options.script);
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
