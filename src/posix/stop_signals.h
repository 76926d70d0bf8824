// The signals that stop the service: SIGINT, SIGTERM, and SIGALRM, which repeats their request.

#pragma once

namespace qnt {

// Block and unblock the stop signals in the calling thread.
void blockStopSignals();
void unblockStopSignals();

}  // namespace qnt
