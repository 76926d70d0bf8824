// Keeps three views of the same printers in step: the host's list, the guest's queues that are
// bound to host printers, and the service's memory of those queues.
//
// Each operation takes one fresh listing of the queues; one that fails counts as empty. Ids and
// names are compared byte for byte; of several entries with one id, the first counts. All callers
// hold the tool's mutex. Failures of the CUPS tools are logged below and not reported here.

#pragma once

#include <string>

#include "cups/queue_listing.h"

namespace qnt {

// Replaces the known queues with a fresh listing. Returns those whose id is no longer listed, in
// their known order.
QueueBindingList getUserDeletedPrinters(QueueBindingList& knownQueues);

// The comparison behind it, with a listing that the caller has taken: `knownQueues` and `listing`
// change places. Linear while both name the same ids in the same order, as they nearly always do.
QueueBindingList takeVanishedQueues(QueueBindingList& knownQueues, QueueBindingList& listing);

// Takes the first entry with this id out of the known queues, so that a deletion by the service
// itself is not reported to the host.
void forgetPrinter(QueueBindingList& knownQueues, const std::string& id);

// Whether a queue is bound to exactly this id.
bool hasQueueForId(const std::string& id);

// Deletes every host-bound queue that is not online.
void deleteOfflinePrinters();

// Whether no host-bound queue is online; true when there is none.
bool areAllPrintersOffline();

// Renames each queue whose name differs from the host's name of its printer.
void syncPrinterNames(const QueueBindingList& hostPrinters);

}  // namespace qnt
