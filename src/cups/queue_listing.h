// Lists the queues that belong to host printers: those whose device URI is a USB URI that ends in
// "=" and an id.

#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <tuple>

namespace qnt {

// A CUPS queue and the host printer that it belongs to. `id` is the host's identifier of the
// printer: the USB serial number of its virtual device, and the end of the queue's device URI after
// the last "=" that is followed by "TAG". Ids and names are compared byte for byte.
struct QueueBinding {
    std::string id;
    std::string queueName;
    bool operator<(const QueueBinding& other) const {
        return std::tie(id, queueName) < std::tie(other.id, other.queueName);
    }
};

// Queues in the order in which lpstat prints them. An id may occur more than once. The protocol's
// list of the host's printers has the same type: there, `queueName` is the host's name of the
// printer, which may contain blanks.
using QueueBindingList = std::list<QueueBinding>;

// Bit 0 of getHostPrinterQueues' flags, which every caller sets; the other bits have no effect. The
// flags are fixed from outside.
inline constexpr std::int32_t kListHostQueues = 1;

// Appends the queues that are bound to exactly this id, or, if it is empty, to any id that begins
// with "TAG", in the order of lpstat. False, with nothing added, if no pipe or process could be
// created or the id is not valid. Returns true with nothing added if CUPS has no such queue or does
// not answer. Logs nothing. The caller holds the tool's mutex once there are workers.
[[nodiscard]] bool listPrinterQueues(QueueBindingList& queues, const std::string& id);

// As listPrinterQueues for every host printer, but returns true only if CUPS has answered and the
// list is complete. What was added otherwise is not complete.
[[nodiscard]] bool listQueuesIfAnswered(QueueBindingList& queues);

// listPrinterQueues for every host printer; without kListHostQueues, returns true with nothing
// added.
[[nodiscard]] bool getHostPrinterQueues(QueueBindingList& queues, std::int32_t flags);

}  // namespace qnt
