#include "posix/stop_signals.h"

#include <pthread.h>

#include <csignal>

namespace qnt {
namespace {

void maskStopSignals(int how) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGALRM);
    pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

void blockStopSignals() {
    maskStopSignals(SIG_BLOCK);
}

void unblockStopSignals() {
    maskStopSignals(SIG_UNBLOCK);
}

}  // namespace qnt
