// The service's command line: "l:hv".

#pragma once

namespace qnt {

enum class OptionsResult {
    kStart,
    kUsagePrinted,  // the process must end with exit code 0
};

// Sets the log level to the default, then applies the options from left to right. Unknown options
// and levels outside 0 to 3 are ignored. -h prints the usage to standard output and ends the
// reading. To be called once in a process.
OptionsResult readOptions(int argc, char** argv);

}  // namespace qnt
