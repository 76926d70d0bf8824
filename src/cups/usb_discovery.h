// Virtual USB printers in sysfs.

#pragma once

#include <string>

namespace qnt {

// The first line of a text file without its newline; empty if the file can't be opened.
std::string readFirstLine(const std::string& path);

// The product string of the first USB device, in byte order of the paths, whose serial is the id
// and whose product string is not empty; empty if there is none. Reads the device tree at every
// call (https://www.kernel.org/doc/Documentation/ABI/testing/sysfs-bus-usb).
std::string getUsbProductBySerial(const std::string& id);

}  // namespace qnt
