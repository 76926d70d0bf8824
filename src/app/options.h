// Reads the service's command line: -h, -l LEVEL and -v.

#pragma once

namespace qnt {

enum class OptionsResult {
    kStart,
    kUsagePrinted,  // the process must end with exit code 0
};

// Sets the log level to the default, then applies the options from left to right. Unknown options
// and levels outside 0 to 3 are ignored; text that is not a number is level 0. -h prints the usage,
// with the level set so far as the default, to standard output and ends the reading. To be called
// once in a process.
OptionsResult readOptions(int argc, char** argv);

}  // namespace qnt
