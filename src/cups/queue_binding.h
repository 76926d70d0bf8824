// A CUPS queue and the host printer that it belongs to.

#pragma once

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

}  // namespace qnt
