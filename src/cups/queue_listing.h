// The queues that belong to host printers: those whose device URI is a USB URI that ends in "="
// and an id.

#pragma once

#include <cstdint>
#include <string>

#include "cups/queue_binding.h"

namespace qnt {

// Bit 0 of getHostPrinterQueues' flags; the other bits have no effect.
inline constexpr std::int32_t kListHostQueues = 1;

// Appends the queues that are bound to exactly this id, or to any id that begins with "TAG" when
// it is empty, in the order of lpstat. False, with nothing added, when no pipe could be opened or
// no queue can be bound to such an id; an empty CUPS and one that does not answer both give true
// and nothing. Logs nothing. The caller holds the tool's mutex once there are workers.
bool listPrinterQueues(QueueBindingList& queues, const std::string& id);

// The same for every host printer; true at once, with nothing added, without kListHostQueues.
bool getHostPrinterQueues(QueueBindingList& queues, std::int32_t flags);

}  // namespace qnt
