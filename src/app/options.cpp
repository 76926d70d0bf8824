#include "app/options.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "log/log_record.h"

namespace qnt {
namespace {

constexpr std::int32_t kDefaultLogLevel = kLogInfo;

void setLevelFrom(const char* text) {
    const auto level = static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
    if (level >= kLogAlways && level <= kLogDetail)
        logSetLevel(level);
}

void printUsage(const char* program) {
    std::printf(
        "Quintaris Shared Printers Tool usage:\n"
        " %s [options]\n"
        "Options:\n"
        " -h   : This help\n"
        " -l   : Logging level [0, 3], default %d\n"
        " -v   : Verbose logging, set log level to 3\n",
        program, logGetLevel());
}

}  // namespace

OptionsResult readOptions(int argc, char** argv) {
    logSetLevel(kDefaultLogLevel);
    int option = 0;
    while ((option = getopt(argc, argv, "l:hv")) != -1) {
        switch (option) {
            case 'l':
                setLevelFrom(optarg);
                break;
            case 'v':
                logSetLevel(kLogDetail);
                break;
            case 'h':
                printUsage(argv[0]);
                return OptionsResult::kUsagePrinted;
            default:
                break;
        }
    }
    return OptionsResult::kStart;
}

}  // namespace qnt
