// Which queues of a listing are really the queues of host printers.
//
// CUPS lets every local user create a *temporary* queue with any name and device URI (the operation
// CUPS-Create-Local-Printer), which it deletes a minute after its last use. Such a queue may have
// the URI of a host printer. Up to CUPS 2.4.2 the URI may also contain a newline, and lpstat then
// prints a forged line that looks like another queue's. So a line of the listing is only a claim. A
// queue is trusted if CUPS binds it to the id when it is asked for this queue only, and if it is
// not temporary.
//
// What CUPS has answered is remembered as long as the queue is listed, and a queue that the service
// has created is trusted, so CUPS is asked only about a queue that is new, and again at the next
// listing if it does not answer. All callers hold the tool's mutex once there are workers. May
// throw std::bad_alloc.

#pragma once

#include <string>

#include "cups/queue_listing.h"

namespace qnt {

// listPrinterQueues and listQueuesIfAnswered, without the queues that are not trusted. The second
// is false also if CUPS has not answered about one of the queues.
[[nodiscard]] bool listTrustedQueues(QueueBindingList& queues, const std::string& id);
[[nodiscard]] bool listTrustedQueuesIfAnswered(QueueBindingList& queues);

// Makes a queue that the service has just created permanent if CUPS counts it as temporary, because
// a temporary queue of this name existed. Trusts it from now on.
void adoptCreatedQueue(const QueueBinding& queue);

// Forgets what CUPS has answered about a queue that the service deletes: another one of this name
// may be created before the next listing.
void forgetTrust(const QueueBinding& queue);

// Asks CUPS for this queue only. False, with a record, unless CUPS binds it to exactly this id. To
// be called before the queue is changed.
[[nodiscard]] bool confirmBinding(const QueueBinding& queue);

}  // namespace qnt
