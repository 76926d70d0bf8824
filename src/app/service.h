// The service from its command line to its exit code.

#pragma once

namespace qnt {

// Runs the service and returns its exit code: 0 after an orderly stop, after the usage, or when
// CUPS is unavailable; 1 when the link or the device can't be opened, the run loop fails, or memory
// runs out. To be called once in a process, on the main thread.
int runService(int argc, char** argv);

// Handles SIGTERM and SIGINT: asks the run loop and the workers to end, again each second until the
// process ends. Takes no lock and allocates nothing, not even to write its record (see
// SignalLogScope).
void stopSignalHandler(int signal);

}  // namespace qnt
