// Asking about, choosing and deleting the queues of host printers, by printer id.
//
// Each operation lists the queues afresh where it needs them, runs one CUPS command line and waits
// for it; none retries. The queue of an id is the last one that lpstat lists for it. The caller
// holds the tool's mutex, which also guards the name of the default queue. Failures are logged
// here. May throw std::bad_alloc.

#pragma once

#include <string>

namespace qnt {

// Whether a queue is bound to the id and enabled, and its virtual USB printer plugged in.
bool isPrinterOnline(const std::string& id);

// Makes the queue of the id the CUPS default; without one, nothing happens.
void setDefaultPrinter(const std::string& id);

// The queue that setDefaultPrinter last made the default, also when it has been deleted since;
// empty at first.
const std::string& lastDefaultQueue();

// Deletes a queue by its name, in which blanks stand for "_". The id is for the records alone.
void deletePrinter(const std::string& queueName, const std::string& id);

// Deletes every queue that is bound to the id.
void deletePrinterById(const std::string& id);

}  // namespace qnt
