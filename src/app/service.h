// The service's life, from its command line to its exit code.

#pragma once

namespace qnt {

// Starts the service, runs it until a stop signal or a failure, and returns the exit code: 0 after
// an orderly end, the usage, and without CUPS; 1 when a channel can't be opened or the run fails.
int runService(int argc, char** argv);

// Handles SIGTERM and SIGINT: asks the run loop and the workers to end.
void stopSignalHandler(int signal);

}  // namespace qnt
