// Simulated folders of a guest (/proc/driver, /sys/bus/usb, /var/log) in a mount namespace that is
// not visible from outside.

#pragma once

#include <string>

namespace sim {

inline constexpr char kDriverFolder[] = "/proc/driver";
inline constexpr char kUsbDevicesFolder[] = "/sys/bus/usb/devices";

// Moves the calling process into a new mount namespace, mounts a USB device tree with one root hub
// over /sys/bus, and binds `logFolder` (created if missing) over /var/log. Call it once in a
// process, as root, before threads start. Throws std::system_error with a sentence that names what
// failed.
void enterGuestNamespace(const std::string& logFolder);

// Makes the same mounts in the mount namespace of the process, which must be a private one.
void mountGuestFolders(const std::string& logFolder);

// Adds a virtual USB printer to the device tree, or removes all with this serial. Serial and
// product are written as given, followed by a newline. Several devices may have the same serial.
// One thread at a time.
void plugUsbPrinter(const std::string& serial, const std::string& product);
void unplugUsbPrinter(const std::string& serial);

}  // namespace sim
