// Functions on the queues of host printers, by printer id.
//
// The functions on an id list its queues first; the last trusted one that lpstat lists counts as
// the printer's queue. For isPrinterOnline and setDefaultPrinter, the empty id stands for all host
// printers. Each change is one CUPS command line, which the function waits for and does not retry.
// Before it, CUPS is asked whether it binds the queue to the id; if not, the queue is left alone.
// The caller holds the tool's mutex, which also guards what is known of the default queue. Failures
// are logged. May throw std::bad_alloc.

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

// True if setDefaultPrinter has succeeded for this id, later than for any other id and later than
// the last forgetAppliedDefault. addPrinter calls that function, because a queue that is created
// again is no longer the default.
bool isAppliedDefault(const std::string& id);
void forgetAppliedDefault(const std::string& id);

// Deletes a queue by its name, after replacing blanks by "_". False if it was left alone; true also
// if lpadmin failed.
bool deletePrinter(const std::string& queueName, const std::string& id);

// Deletes every queue that is bound to the id, temporary ones too.
void deletePrinterById(const std::string& id);

}  // namespace qnt
