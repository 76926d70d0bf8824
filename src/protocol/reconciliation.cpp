#include "protocol/reconciliation.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <unordered_map>

#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"

namespace qnt {
namespace {

QueueBindingList listHostQueues() {
    QueueBindingList listing;
    getHostPrinterQueues(listing, kListHostQueues);
    return listing;
}

using QueuesById = std::unordered_map<std::string_view, const QueueBinding*>;

// The first queue of each id. The listing must outlive the result.
QueuesById indexById(const QueueBindingList& listing) {
    QueuesById queues(listing.size());
    for (const QueueBinding& queue : listing)
        queues.emplace(queue.id, &queue);
    return queues;
}

}  // namespace

QueueBindingList getUserDeletedPrinters(QueueBindingList& knownQueues) {
    QueueBindingList listing = listHostQueues();
    const QueuesById listed = indexById(listing);
    QueueBindingList vanished;
    std::copy_if(knownQueues.begin(), knownQueues.end(), std::back_inserter(vanished),
                 [&](const QueueBinding& known) { return !listed.contains(known.id); });
    knownQueues.swap(listing);
    return vanished;
}

void forgetPrinter(QueueBindingList& knownQueues, const std::string& id) {
    const auto found = std::find_if(knownQueues.begin(), knownQueues.end(),
                                    [&](const QueueBinding& queue) { return queue.id == id; });
    if (found != knownQueues.end())
        knownQueues.erase(found);
}

bool hasQueueForId(const std::string& id) {
    const QueueBindingList listing = listHostQueues();
    return std::any_of(listing.begin(), listing.end(),
                       [&](const QueueBinding& queue) { return queue.id == id; });
}

void deleteOfflinePrinters() {
    for (const QueueBinding& queue : listHostQueues()) {
        if (!isPrinterOnline(queue.id))
            deletePrinter(queue.queueName, queue.id);
    }
}

bool areAllPrintersOffline() {
    const QueueBindingList listing = listHostQueues();
    return std::none_of(listing.begin(), listing.end(),
                        [](const QueueBinding& queue) { return isPrinterOnline(queue.id); });
}

void syncPrinterNames(const QueueBindingList& hostPrinters) {
    const QueueBindingList listing = listHostQueues();
    const QueuesById queues = indexById(listing);
    for (const QueueBinding& printer : hostPrinters) {
        const auto found = queues.find(printer.id);
        if (found == queues.end() || found->second->queueName == printer.queueName)
            continue;
        std::string newName = printer.queueName;
        renamePrinter(found->second->queueName, newName);
    }
}

}  // namespace qnt
