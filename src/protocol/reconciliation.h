// Keeps three views of the same printers in step: the host's list, the guest's queues that are
// bound to host printers, and the service's memory of those queues.
//
// Each function except forgetPrinter takes a new listing, hasQueueForId of all queues, the others
// of the trusted ones; a failed listing counts as empty, except where it would show a deletion. Of
// several entries with one id, the first counts here (for isPrinterOnline and setDefaultPrinter it
// is the last). All callers hold the tool's mutex. Failures of the CUPS tools are logged by the
// functions on queues and not reported here. May throw std::bad_alloc.

#pragma once

#include <string>

#include "cups/queue_listing.h"

namespace qnt {

// Replaces the known queues with a new listing. Returns the known queues whose id is no longer
// listed, in their known order. If some have vanished and CUPS does not answer, returns none and
// leaves the known queues unchanged.
QueueBindingList getUserDeletedPrinters(QueueBindingList& knownQueues);

// Removes the first entry with this id from the known queues, so that a deletion by the service is
// not reported to the host.
void forgetPrinter(QueueBindingList& knownQueues, const std::string& id);

// True if a queue is bound to exactly this id.
bool hasQueueForId(const std::string& id);

// Deletes every host-bound queue that is not online. The queues stay known, so the next comparison
// returns them as deleted by the user.
void deleteOfflinePrinters();

// True if no host-bound queue is online, or there is none.
bool areAllPrintersOffline();

// Calls renamePrinter for each printer's queue (the first of its id) whose name differs from the
// host's name. If only a blank and its "_" differ, that call writes its record and does nothing
// else. Printers may take names from each other: a queue whose name an earlier printer of the list
// gets is deleted before and created again in its turn, and is the default again if it was.
void syncPrinterNames(const QueueBindingList& hostPrinters);

}  // namespace qnt
