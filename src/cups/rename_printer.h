// Renaming the queue of a host printer.

#pragma once

#include <string>

namespace qnt {

// Deletes a queue and creates it anew under another name, whose blanks are replaced in place, and
// makes it the default again when it was. True when the names were equal already, and after the
// deletion and creation, whatever came of them; false, with nothing done, when no host printer's
// queue has the current name or the new one can't be carried. The caller holds the tool's mutex.
// May throw std::bad_alloc.
bool renamePrinter(const std::string& currentName, std::string& newName);

}  // namespace qnt
