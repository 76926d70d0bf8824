// The signals that stop the service: SIGINT and SIGTERM.

#pragma once

namespace qnt {

// Block and unblock the stop signals in the calling thread.
void blockStopSignals();
void unblockStopSignals();

}  // namespace qnt
