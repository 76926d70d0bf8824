#include "protocol/reconciliation.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "cups/printer_names.h"
#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "cups/trusted_queues.h"

namespace qnt {
namespace {

QueueBindingList listHostQueues() {
    QueueBindingList listing;
    (void)listTrustedQueues(listing, {});
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

QueueBindingList vanishedFrom(const QueueBindingList& known, const QueueBindingList& listing) {
    const QueuesById listed = indexById(listing);
    QueueBindingList vanished;
    std::ranges::copy_if(known, std::back_inserter(vanished),
                         [&](const QueueBinding& queue) { return !listed.contains(queue.id); });
    return vanished;
}

// A printer of the host's list whose queue has another name.
struct Rename {
    const QueueBinding& queue;
    std::string newName;
    bool wasDefault;
    bool isQueueDeleted = false;

    // False if the host's name, as queueNameFor or acceptedQueueName returns it, is the queue's.
    bool changesName() const {
        const std::string queueName = queueNameFor(newName);
        return queue.queueName != queueName && queue.queueName != acceptedQueueName(queueName);
    }
    bool takesNameOf(const QueueBinding& other) const {
        const std::string queueName = queueNameFor(newName);
        return areSameQueue(other.queueName, queueName) ||
               areSameQueue(other.queueName, acceptedQueueName(queueName));
    }
};

std::vector<Rename> findRenames(const QueueBindingList& hostPrinters, const QueuesById& queues) {
    std::vector<Rename> renames;
    for (const QueueBinding& printer : hostPrinters) {
        const auto found = queues.find(printer.id);
        if (found != queues.end() && found->second->queueName != printer.queueName)
            renames.push_back({*found->second, printer.queueName,
                               found->second->queueName == lastDefaultQueueName()});
    }
    return renames;
}

// Deletes the queues of later printers whose name this one gets. CUPS would otherwise bind such a
// queue, with its jobs, to this printer.
void freeName(const Rename& rename, std::span<Rename> later) {
    if (!rename.changesName())
        return;
    for (Rename& other : later)
        if (other.changesName() && rename.takesNameOf(other.queue))
            other.isQueueDeleted = deletePrinter(other.queue.queueName, other.queue.id);
}

}  // namespace

// A listing that fails looks like one without queues, so what has vanished from it is looked for in
// a second one, which proves that CUPS has answered.
QueueBindingList getUserDeletedPrinters(QueueBindingList& knownQueues) {
    QueueBindingList listing = listHostQueues();
    QueueBindingList vanished = vanishedFrom(knownQueues, listing);
    if (!vanished.empty()) {
        listing.clear();
        if (!listTrustedQueuesIfAnswered(listing))
            return {};
        vanished = vanishedFrom(knownQueues, listing);
    }
    knownQueues.swap(listing);
    return vanished;
}

void forgetPrinter(QueueBindingList& knownQueues, const std::string& id) {
    const auto found = std::ranges::find(knownQueues, id, &QueueBinding::id);
    if (found != knownQueues.end())
        knownQueues.erase(found);
}

bool hasQueueForId(const std::string& id) {
    QueueBindingList listing;
    (void)getHostPrinterQueues(listing, kListHostQueues);
    return std::ranges::find(listing, id, &QueueBinding::id) != listing.end();
}

void deleteOfflinePrinters() {
    for (const QueueBinding& queue : listHostQueues()) {
        if (!isPrinterOnline(queue.id))
            deletePrinter(queue.queueName, queue.id);
    }
}

bool areAllPrintersOffline() {
    const QueueBindingList listing = listHostQueues();
    return std::ranges::none_of(listing, isPrinterOnline, &QueueBinding::id);
}

void syncPrinterNames(const QueueBindingList& hostPrinters) {
    const QueueBindingList listing = listHostQueues();
    std::vector<Rename> renames = findRenames(hostPrinters, indexById(listing));
    for (auto rename = renames.begin(); rename != renames.end(); ++rename) {
        freeName(*rename, {rename + 1, renames.end()});
        if (!rename->isQueueDeleted) {
            renamePrinter(rename->queue.queueName, rename->newName);
            continue;
        }
        addPrinter(rename->newName, rename->queue.id);
        if (rename->wasDefault)
            setDefaultPrinter(rename->queue.id);
    }
}

}  // namespace qnt
