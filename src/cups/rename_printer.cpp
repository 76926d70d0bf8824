#include "cups/rename_printer.h"

#include <algorithm>

#include "cups/add_printer.h"
#include "cups/outside_text.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "log/log_record.h"

namespace qnt {

bool renamePrinter(const std::string& currentName, std::string& newName) {
    if (logGetLevel() > 2)
        logRecord("", kServiceTag, 3, "renamePrinter: '%s'->'%s'", currentName.c_str(),
                  newName.c_str());
    newName = withoutBlanks(newName);
    if (currentName == newName)
        return true;
    if (!queueWord(newName))  // before the old queue is lost for it
        return false;
    QueueBindingList queues;
    if (!getHostPrinterQueues(queues, kListHostQueues))
        return false;
    const auto queue = std::find_if(
        queues.begin(), queues.end(),
        [&](const QueueBinding& candidate) { return candidate.queueName == currentName; });
    if (queue == queues.end() || refusesId(queue->id))
        return false;
    deletePrinter(currentName, queue->id);
    std::string createdName = newName;
    addPrinter(createdName, queue->id);
    if (currentName == lastDefaultQueue())
        setDefaultPrinter(queue->id);
    return true;
}

}  // namespace qnt
