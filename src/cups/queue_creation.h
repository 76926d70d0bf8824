// Creating and renaming the queue of a host printer.
//
// The caller holds the tool's mutex. Failures are logged. The functions may throw std::bad_alloc.

#pragma once

#include <string>

namespace qnt {

inline constexpr int kUsbWaitTries = 120;
inline constexpr unsigned kUsbWaitPauseSeconds = 1;  // for sleep(3)

// Creates the queue of the printer with this id, after deleting every queue that is bound to it.
// Without a name, waits up to kUsbWaitTries times kUsbWaitPauseSeconds for the virtual USB printer
// and takes its product string. The queue is named as queueNameFor returns it; if that creation
// fails and CUPS may have refused the name, as acceptedQueueName returns it.
//
// On return the name is the queue name that was used, or empty if there was none; no caller in the
// service needs it. An empty id, one that isValidPrinterId rejects and a name that no command can
// contain are refused before any queue is touched. Whether the queue exists afterwards is not
// returned: list the queues, or call isPrinterOnline.
void addPrinter(std::string& name, const std::string& id);

// Renames a queue: deletes it, creates it again under the new name, and makes it the default again
// if it was. Replaces the blanks of `newName` in place. True if the queue already has the new name
// or its accepted form, and after a deletion and creation, even if these failed. False, with no
// queue changed, if the queues can't be listed, no trusted queue has the current name, CUPS does
// not confirm its binding, or addPrinter would refuse its id or the new name.
bool renamePrinter(const std::string& currentName, std::string& newName);

// Selects the driver that every queue gets: the one that CUPS names, or a fixed one if it names
// none. addPrinter calls it before the first creation in the process.
void selectPpdModel();

}  // namespace qnt
