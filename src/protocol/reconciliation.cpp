#include "protocol/reconciliation.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "cups/queue_listing.h"
#include "cups/queue_operations.h"
#include "cups/rename_printer.h"

namespace qnt {
namespace {

QueueBindingList takeListing() {
    QueueBindingList listing;
    getHostPrinterQueues(listing, kListHostQueues);
    return listing;
}

// Finds queues of a list by their id in logarithmic time. The list must outlive the index.
class QueueIndex {
public:
    explicit QueueIndex(const QueueBindingList& queues) {
        m_queues.reserve(queues.size());
        for (const QueueBinding& queue : queues)
            m_queues.push_back(&queue);
        std::stable_sort(m_queues.begin(), m_queues.end(),
                         [](const auto* left, const auto* right) { return left->id < right->id; });
    }

    // The first queue in list order with this id, or null.
    const QueueBinding* find(const std::string& id) const {
        const auto found =
            std::lower_bound(m_queues.begin(), m_queues.end(), id,
                             [](const auto* queue, const auto& key) { return queue->id < key; });
        return found != m_queues.end() && (*found)->id == id ? *found : nullptr;
    }

private:
    std::vector<const QueueBinding*> m_queues;
};

}  // namespace

QueueBindingList getUserDeletedPrinters(QueueBindingList& knownQueues) {
    QueueBindingList listing = takeListing();
    QueueBindingList deleted;
    const QueueIndex listed(listing);
    for (const QueueBinding& known : knownQueues) {
        if (listed.find(known.id) == nullptr)
            deleted.push_back(known);
    }
    knownQueues.swap(listing);
    return deleted;
}

void forgetPrinter(QueueBindingList& knownQueues, const std::string& id) {
    const auto found = std::find_if(knownQueues.begin(), knownQueues.end(),
                                    [&](const QueueBinding& queue) { return queue.id == id; });
    if (found != knownQueues.end())
        knownQueues.erase(found);
}

bool hasQueueForId(const std::string& id) {
    const QueueBindingList listing = takeListing();
    return std::any_of(listing.begin(), listing.end(),
                       [&](const QueueBinding& queue) { return queue.id == id; });
}

void deleteOfflinePrinters() {
    for (const QueueBinding& queue : takeListing()) {
        if (!isPrinterOnline(queue.id))
            deletePrinter(queue.queueName, queue.id);
    }
}

bool areAllPrintersOffline() {
    const QueueBindingList listing = takeListing();
    return std::none_of(listing.begin(), listing.end(),
                        [](const QueueBinding& queue) { return isPrinterOnline(queue.id); });
}

void syncPrinterNames(const QueueBindingList& hostPrinters) {
    const QueueBindingList listing = takeListing();
    const QueueIndex queues(listing);
    for (const QueueBinding& printer : hostPrinters) {
        const QueueBinding* queue = queues.find(printer.id);
        if (queue == nullptr || queue->queueName == printer.queueName)
            continue;
        std::string newName = printer.queueName;
        renamePrinter(queue->queueName, newName);
    }
}

}  // namespace qnt
