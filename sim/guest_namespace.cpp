#include "sim/guest_namespace.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr char kBusFolder[] = "/sys/bus";
constexpr char kLogFolder[] = "/var/log";
// Does not match the pattern "*-*", so that a device becomes visible only when it is complete.
constexpr char kUnfinishedDevice[] = "unfinished";

[[noreturn]] void fail(const std::string& sentence) {
    throw std::system_error(errno, std::generic_category(), sentence);
}

void mountOver(const char* source, const char* target, const char* type, unsigned long flags) {
    if (mount(source, target, type, flags, nullptr) != 0)
        fail(std::string("Could not mount over ") + target);
}

void writeLine(const fs::path& path, const std::string& line) {
    std::ofstream file(path, std::ios::binary);
    file << line << '\n' << std::flush;
    if (!file)
        fail("Could not write " + path.string());
}

std::string content(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void makeDevice(const std::string& name, const std::string& serial, const std::string& product) {
    const fs::path unfinished = fs::path(kUsbDevicesFolder) / kUnfinishedDevice;
    fs::create_directory(unfinished);
    writeLine(unfinished / "serial", serial);
    writeLine(unfinished / "product", product);
    fs::rename(unfinished, fs::path(kUsbDevicesFolder) / name);
}

// The first free device name on the bus, e.g. "1-3".
std::string freeDeviceName() {
    int port = 1;
    while (fs::exists(fs::path(kUsbDevicesFolder) / ("1-" + std::to_string(port))))
        ++port;
    return "1-" + std::to_string(port);
}

fs::path interfaceOf(const fs::path& device) {
    return device.string() + ":1.0";
}

}  // namespace

void enterGuestNamespace(const std::string& logFolder) {
    if (unshare(CLONE_NEWNS) != 0)
        fail("Could not make a mount namespace, which needs root");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        fail("Could not make the mounts private");
    mountGuestFolders(logFolder);
}

void mountGuestFolders(const std::string& logFolder) {
    fs::create_directories(logFolder);
    mountOver(logFolder.c_str(), kLogFolder, nullptr, MS_BIND);
    mountOver("qnt-usb", kBusFolder, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    fs::create_directories(kUsbDevicesFolder);
    makeDevice("usb1", "0000:00:14.0", "xHCI Host Controller");
}

void plugUsbPrinter(const std::string& serial, const std::string& product) {
    const std::string name = freeDeviceName();
    makeDevice(name, serial, product);
    const fs::path interface = interfaceOf(fs::path(kUsbDevicesFolder) / name);
    fs::create_directory(interface);
    writeLine(interface / "bInterfaceClass", "07");
}

void unplugUsbPrinter(const std::string& serial) {
    for (const fs::directory_entry& device : fs::directory_iterator(kUsbDevicesFolder)) {
        if (content(device.path() / "serial") != serial + '\n')
            continue;
        fs::remove_all(interfaceOf(device.path()));
        fs::remove_all(device.path());
    }
}

}  // namespace sim
