// Operations on the queues of host printers, by printer id.
//
// The operations on an id list its queues first; the last one that lpstat lists counts as the
// printer's queue. For isPrinterOnline and setDefaultPrinter, the empty id stands for all host
// printers. Each change is one CUPS command line, which the operation waits for and does not
// retry. The caller holds the tool's mutex, which also guards the name of the default queue.
// Failures are logged. The operations may throw std::bad_alloc.

#pragma once

#include <string>

namespace qnt {

// True if a queue is bound to the id and enabled, and the virtual USB printer is plugged in.
bool isPrinterOnline(const std::string& id);

// Makes the queue of the id the CUPS default; does nothing if there is no such queue.
void setDefaultPrinter(const std::string& id);

// The queue that setDefaultPrinter last made the default, even if it has been deleted since; empty
// at first.
const std::string& lastDefaultQueueName();

// Deletes a queue by its name, after replacing blanks by "_". The id only appears in the records.
void deletePrinter(const std::string& queueName, const std::string& id);

// Deletes every queue that is bound to the id.
void deletePrinterById(const std::string& id);

}  // namespace qnt
