#include "protocol/reconciliation.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <vector>

#include "cups/queue_creation.h"
#include "cups/queue_listing.h"
#include "cups/queue_operations.h"

namespace qnt {
namespace {

QueueBindingList takeListing() {
    QueueBindingList listing;
    getHostPrinterQueues(listing, kListHostQueues);
    return listing;
}

// Finds queues of a list by their id in logarithmic time. The list must outlive the index. Hashes
// are compared in place of the ids, which lie scattered in memory.
class QueueIndex {
public:
    using Queue = QueueBindingList::const_iterator;

    explicit QueueIndex(const QueueBindingList& queues) : m_none(queues.end()) {
        m_slots.reserve(queues.size());
        for (Queue queue = queues.begin(); queue != queues.end(); ++queue)
            m_slots.push_back({hashOf(queue->id), m_slots.size(), queue});
        std::sort(m_slots.begin(), m_slots.end());
    }

    // The first queue in list order with this id, or the list's end.
    Queue find(const std::string& id) const {
        const std::size_t hash = hashOf(id);
        auto slot = std::lower_bound(m_slots.begin(), m_slots.end(), Slot{hash, 0, m_none});
        for (; slot != m_slots.end() && slot->hash == hash; ++slot) {
            if (slot->queue->id == id)
                return slot->queue;
        }
        return m_none;
    }

private:
    struct Slot {
        std::size_t hash;
        std::size_t position;  // in the list
        Queue queue;

        bool operator<(const Slot& other) const {
            return hash != other.hash ? hash < other.hash : position < other.position;
        }
    };

    static std::size_t hashOf(const std::string& id) { return std::hash<std::string>()(id); }

    const Queue m_none;
    std::vector<Slot> m_slots;
};

}  // namespace

QueueBindingList getUserDeletedPrinters(QueueBindingList& knownQueues) {
    QueueBindingList listing = takeListing();
    return takeVanishedQueues(knownQueues, listing);
}

QueueBindingList takeVanishedQueues(QueueBindingList& knownQueues, QueueBindingList& listing) {
    QueueBindingList vanished;
    std::optional<QueueIndex> listed;  // made where the order first differs
    auto next = listing.cbegin();      // behind the last queue that was found
    for (const QueueBinding& known : knownQueues) {
        auto found = next;
        if (found == listing.cend() || found->id != known.id) {
            if (!listed)
                listed.emplace(listing);
            found = listed->find(known.id);
        }
        if (found == listing.cend())
            vanished.push_back(known);
        else
            next = std::next(found);
    }
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
        const auto queue = queues.find(printer.id);
        if (queue == listing.cend() || queue->queueName == printer.queueName)
            continue;
        std::string newName = printer.queueName;
        renamePrinter(queue->queueName, newName);
    }
}

}  // namespace qnt
