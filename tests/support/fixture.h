// Fixture for whole-system tests: a private real CUPS, a simulated host, the unmodified service.
// A file that includes it puts its process into a guest's namespace, starts CUPS before the first
// case, and replaces sleep(). Waits return as soon as their condition holds.

#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "sim/guest_namespace.h"
#include "sim/private_cups.h"
#include "sim/simulated_host.h"
#include "tests/support/bytes.h"

// Sleeps of this process return at once.
inline std::vector<unsigned> g_sleeps;
inline std::function<void()> g_afterSleep;
extern "C" unsigned sleep(unsigned seconds) {
    g_sleeps.push_back(seconds);
    if (g_afterSleep)
        g_afterSleep();
    return 0;
}

namespace qnt {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Milliseconds = std::chrono::milliseconds;

inline fs::path freshFolder() {
    std::string name = "/tmp/qnt-test-XXXXXX";
    return mkdtemp(name.data());
}

// Shared by all cases of a process.
struct Guest : testing::Environment {
    // The address sanitizer refuses LD_PRELOAD otherwise. And its marks must not lie on the stack,
    // where those of a cancelled thread's frames would stay for the next function.
    void SetUp() override {
        const std::string more = ":verify_asan_link_order=0:detect_stack_use_after_return=1";
        setenv("ASAN_OPTIONS", "", 0);
        setenv("ASAN_OPTIONS", (std::getenv("ASAN_OPTIONS") + more).c_str(), 1);
        sim::enterGuestNamespace(folder / "log");
        cups.emplace(folder / "cups");
    }
    void TearDown() override {
        cups.reset();
        fs::remove_all(folder);
    }

    const fs::path folder = freshFolder();
    const std::string path = std::getenv("PATH");
    std::optional<sim::PrivateCups> cups;
};
inline Guest& guest = dynamic_cast<Guest&>(*testing::AddGlobalTestEnvironment(new Guest));

// For waits that end with their condition, on any machine.
inline constexpr Milliseconds kPatience = 60s;

inline bool eventually(const std::function<bool()>& condition, Milliseconds time = kPatience) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!condition() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(5ms);
    return condition();
}

// A guest whose host is absent: no queue, no USB printer, an empty log.
class GuestTest : public testing::Test {
protected:
    GuestTest() {
        setenv("PATH", ((folder / "bin").string() + ":" + guest.path).c_str(), 1);
        fs::create_directory(folder / "bin");
        sim::commandOutput("lpstat -e | xargs -rn1 lpadmin -x");
        sim::commandOutput(std::string("rm -rf ") + sim::kUsbDevicesFolder + "/*-*");
        std::ofstream(kLog, std::ios::trunc).flush();
    }
    ~GuestTest() override {
        service.reset();
        setenv("PATH", guest.path.c_str(), 1);
        fs::remove_all(folder);
    }

    // Replaces a tool by a shell script. $real is the tool itself, $folder that of the case.
    void standIn(const std::string& tool, const std::string& script) const {
        std::ofstream(folder / "bin" / tool)
            << "#!/bin/sh\nfolder=" << folder << " real=$(PATH=" << guest.path << " command -v "
            << tool << ")\n"
            << script << '\n';
        fs::permissions(folder / "bin" / tool, fs::perms::all);
    }

    void startService(std::vector<std::string> options = {},
                      const std::map<std::string, std::string>& variables = {}) {
        options.insert(options.begin(), QNT_SERVICE);
        service.emplace(options, variables, folder / "output");
    }
    // With support/preload.cpp. LD_PRELOAD splits at blanks, so it gets a path without them.
    void startPreloaded(std::map<std::string, std::string> variables,
                        const std::vector<std::string>& options = {}) {
        const fs::path link = folder / "preload.so";
        if (!fs::exists(link))
            fs::create_symlink(QNT_PRELOAD, link);
        variables["LD_PRELOAD"] = link;
        startService(options, variables);
    }
    // The exit code of a service that ends by itself, or after SIGTERM; -1 if it does not in time.
    int serviceEnds(Milliseconds time = kPatience) { return service->wait(time).value_or(-1); }
    int stopService(Milliseconds time = 5s) {
        service->signal(SIGTERM);
        return serviceEnds(time);
    }

    // The messages of the log, without time, level, tag and ids.
    static std::vector<std::string> records() {
        std::ifstream log(kLog);
        std::vector<std::string> messages;
        for (std::string record; std::getline(log, record);)
            messages.push_back(record.substr(record.find("/ ") + 2));
        return messages;
    }
    static bool logContains(const std::string& text) {
        return eventually([&] { return contents(kLog).find(text) != std::string::npos; });
    }

    // A queue has a name, and a host printer's id at the end of its device URI.
    static void addQueue(const std::string& name, const std::string& id) {
        int status = 1;
        sim::commandOutput("lpadmin -p " + name + " -E -v '" + kUri + id + "'", &status);
        ASSERT_EQ(status, 0);
    }
    static bool hasQueue(const std::string& name, const std::string& id) {
        const std::string line = "device for " + name + ": " + kUri + id + '\n';
        return sim::commandOutput("lpstat -v").find(line) != std::string::npos;
    }
    static bool isDefault(const std::string& name) {
        return sim::commandOutput("lpstat -d") == "system default destination: " + name + '\n';
    }
    static void expectDefault(const std::string& name) {
        EXPECT_TRUE(eventually([&] { return isDefault(name); })) << name;
    }

    static constexpr char kUri[] = "usb://HP/Color%20LaserJet%208500?serial=";
    static constexpr char kLog[] = "/var/log/quintaris.log";
    const fs::path folder = freshFolder();
    std::optional<sim::Process> service;
};

class ServiceTest : public GuestTest {
protected:
    // Plugs a printer in and lets the host send its list and an add.
    void addPrinter(const std::string& id, const std::string& name) {
        host.plug(id, name);
        host.sendPrinterList();
        host.send(sim::addPrinter(id));
    }
    bool hasResults(std::size_t number) {
        return host.waitUntil([&] { return host.results().size() >= number; });
    }
    bool isIdle() { return host.waitUntilIdle(); }

    sim::SimulatedHost host;
};

}  // namespace qnt
