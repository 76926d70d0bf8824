// Creating and renaming the queue of a host printer.

#pragma once

#include <string>

namespace qnt {

inline constexpr int kUsbWaitTries = 120;
inline constexpr unsigned kUsbWaitPauseSeconds = 1;

// Creates the queue of the printer with this id, after deleting every queue that is bound to it.
// Without a name, waits up to kUsbWaitTries times kUsbWaitPauseSeconds for the virtual USB printer
// and takes its product string. On return the name is the queue name that was used, blanks
// replaced, or empty when there was none. A name or id that CUPS can't be told, and an empty id,
// are refused with a record before any queue is touched. Failures are logged; whether the queue
// exists, ask isPrinterOnline. The caller holds the tool's mutex. May throw std::bad_alloc.
void addPrinter(std::string& name, const std::string& id);

// Asks CUPS, once in the process's life, for the driver that every queue gets; a fixed one when
// CUPS knows none.
void selectPpdModel();

// Deletes a queue and creates it anew under another name, whose blanks are replaced in place, and
// makes it the default again when it was. True when the names were equal already, and after the
// deletion and creation, whatever came of them; false, with nothing done, when no host printer's
// queue has the current name or the new one can't be carried. The caller holds the tool's mutex.
// May throw std::bad_alloc.
bool renamePrinter(const std::string& currentName, std::string& newName);

}  // namespace qnt
