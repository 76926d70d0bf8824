// The queues that belong to host printers: those whose device URI is a USB URI that ends in "="
// and an id.

#pragma once

#include <cstdint>
#include <list>
#include <string>

namespace qnt {

// `id` is the host's identifier of a printer, the USB serial number of its virtual device and the
// text behind the last "=" of the queue's device URI. Ids and names are compared byte for byte.
struct QueueBinding {
    std::string id;
    std::string queueName;
};

// Queues in the order in which lpstat prints them, or the host's printers in the host's order
// with their names in `queueName`. An id may occur more than once.
using QueueBindingList = std::list<QueueBinding>;

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
