// The surroundings that a guest has and a developer's machine lacks, in a mount namespace that
// nothing outside sees.

#pragma once

#include <string>

namespace sim {

inline constexpr char kDriverFolder[] = "/proc/driver";
inline constexpr char kUsbDevicesFolder[] = "/sys/bus/usb/devices";

// Moves the calling process into a private mount namespace, puts an empty USB device tree with one
// root hub over /sys/bus, and binds `logFolder` (created if missing) over /var/log. Once in a
// process, as root; before threads start. Throws std::system_error with a sentence that says what
// is missing.
void enterGuestNamespace(const std::string& logFolder);

// The same but for the namespace, for a process that was started in a private one.
void furnishGuestNamespace(const std::string& logFolder);

// A virtual USB printer appears in the device tree, with an interface folder beside it, or
// disappears. Serial and product are written as given, followed by a newline. Several devices may
// have one serial; they disappear together. Throw std::system_error when the tree can't be changed.
void plugUsbPrinter(const std::string& serial, const std::string& product);
void unplugUsbPrinter(const std::string& serial);

}  // namespace sim
