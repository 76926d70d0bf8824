// A host for the service at a terminal: mounts the request device and the USB devices of a guest,
// reads commands, and prints what is said over the device.

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
#include "sim/process.h"
#include "sim/simulated_host.h"

namespace sim {
namespace {

constexpr int kUsageExitCode = 64;
constexpr int kMissingExitCode = 69;                 // this machine can't play a host
constexpr std::chrono::seconds kProgramEndTime(10);  // after SIGTERM; then it is killed

constexpr char kUsage[] =
    "usage: qnthost [OPTION...] [--run PROGRAM [ARGUMENT...]]\n"
    "\n"
    "Plays the host's side for a guest's printing service, in a mount namespace that nothing\n"
    "outside sees: the request device in /proc/driver, virtual USB printers in /sys/bus/usb,\n"
    "and a folder over /var/log. Needs root and /dev/fuse. Reads commands, and prints each\n"
    "exchange with the service once it is answered: time, request (bytes sent/room offered),\n"
    "answer, how long it was held.\n"
    "\n"
    "  --log FOLDER         what lies over /var/log; a new folder in /tmp, which is named, "
    "otherwise\n"
    "  --script FILE        read the commands there; the first that fails ends it with code 1\n"
    "  --namespace-entered  stay in the mount namespace that unshare -m has made, so that what\n"
    "                       else runs there meets the device, too\n"
    "  --quiet              print no exchanges\n"
    "  --run PROGRAM...     start this program as the guest's; ended by 'stop' or at the end\n"
    "  --help               this text and the commands\n"
    "\n"
    "Prints 'ready' when the device is there. Exit codes: 0, 1 after a failed script, 64 after\n"
    "wrong arguments, 69 where the machine lacks what is needed.\n"
    "\n";

struct Options {
    std::string logFolder;
    std::string script;
    bool namespaceEntered = false;
    bool quiet = false;
    bool help = false;
    bool wrong = false;
    std::vector<std::string> program;
};

Options readOptions(int argc, char** argv) {
    const option known[] = {{"log", required_argument, nullptr, 'l'},
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

// Lines of several threads, each whole and at once where it belongs.
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
            throw std::runtime_error("No folder for the log could be made in /tmp.");
        folder = name;
        printLine("log folder " + folder);
    }
    if (options.namespaceEntered)
        furnishGuestNamespace(folder);
    else
        enterGuestNamespace(folder);
}

// The exit code.
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

int playHost(const Options& options) {
    std::ifstream script(options.script);
    if (!options.script.empty() && !script) {
        std::cerr << "qnthost: can't read " << options.script << std::endl;
        return kUsageExitCode;
    }
    enterNamespace(options);
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
        std::cerr << "qnthost --help tells the usage" << std::endl;
        return kUsageExitCode;
    }
    try {
        return playHost(options);
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
