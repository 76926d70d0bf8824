#include "log/signal_scope.h"

namespace qnt {
namespace {

// Read by a handler, so it must not be allocated lazily: in a program it lies in static TLS.
thread_local volatile bool t_inSignalHandler = false;

}  // namespace

SignalLogScope::SignalLogScope() : m_outer(t_inSignalHandler) {
    t_inSignalHandler = true;
}

SignalLogScope::~SignalLogScope() {
    t_inSignalHandler = m_outer;
}

bool SignalLogScope::active() {
    return t_inSignalHandler;
}

}  // namespace qnt
