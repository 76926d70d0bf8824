#include "sim/guest_namespace.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "cups/usb_discovery.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr char kBusFolder[] = "/sys/bus";
constexpr char kLogFolder[] = "/var/log";

[[noreturn]] void fail(const std::string& sentence) {
    throw std::system_error(errno, std::generic_category(), sentence);
}

void mountOver(const char* source, const char* target, const char* type, unsigned long flags) {
    if (mount(source, target, type, flags, nullptr) != 0)
        fail(std::string("Could not mount over ") + target);
}

// The serial is written last, so that a reader that finds it finds the product as well.
void makeDevice(const std::string& name, const std::string& serial, const std::string& product) {
    const fs::path device = fs::path(kUsbDevicesFolder) / name;
    fs::create_directory(device);
    std::ofstream(device / "product") << product << '\n';
    std::ofstream(device / "serial") << serial << '\n';
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
    static int port = 0;
    makeDevice("1-" + std::to_string(++port), serial, product);
}

void unplugUsbPrinter(const std::string& serial) {
    for (const fs::directory_entry& device : fs::directory_iterator(kUsbDevicesFolder)) {
        if (qnt::readFirstLine(device.path() / "serial") == serial)
            fs::remove_all(device.path());
    }
}

}  // namespace sim
