// Fixture for whole-system tests: a private real CUPS, a simulated host, the unmodified service.
// A test that includes it gets a sleep() that returns at once. The first case puts the process into
// a guest's namespace and starts CUPS. What waits is called so, and returns as soon as its
// condition holds.

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
extern "C" unsigned sleep(unsigned seconds) {
    g_sleeps.push_back(seconds);
    return 0;
}

namespace qnt {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Shared by all cases of a process.
inline sim::Guest& guest() {
    // The address sanitizer refuses LD_PRELOAD otherwise. And its marks must not be on the stack,
    // where those of a cancelled thread's frames would stay for the next function.
    static const std::string options =
        (std::getenv("ASAN_OPTIONS") != nullptr ? std::getenv("ASAN_OPTIONS") : "") +
        std::string(
            ":verify_asan_link_order=0:detect_stack_use_after_return=1"
            ":allocator_may_return_null=1:max_allocation_size_mb=200:exitcode=99");
    // The tests compare the texts of CUPS's tools.
    [[maybe_unused]] static const int set =
        setenv("ASAN_OPTIONS", options.c_str(), 1) + setenv("LC_ALL", "C", 1);
    static sim::Guest instance;
    return instance;
}
inline const std::string g_path = std::getenv("PATH");

using sim::kPatience;
using sim::waitUntil;

// A number from the environment, with which scripts make a test last longer.
inline int setting(const char* variable, int otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : otherwise;
}

// A guest whose host is absent: no queue, no USB printer, an empty log.
class GuestTest : public testing::Test {
protected:
    GuestTest() {
        guest();
        setenv("PATH", ((folder / "bin").string() + ":" + g_path).c_str(), 1);
        fs::create_directory(folder / "bin");
        // LD_PRELOAD splits at blanks, so it gets a path without them.
        fs::create_symlink(QNT_PRELOAD, folder / "preload.so");
        sim::commandOutput("lpstat -e | xargs -rn1 lpadmin -x");
        sim::commandOutput(std::string("rm -rf ") + sim::kUsbDevicesFolder + "/*-*");
        std::ofstream(kLog, std::ios::trunc).flush();
    }
    ~GuestTest() override {
        service.reset();
        setenv("PATH", g_path.c_str(), 1);
    }

    // Replaces a tool by a shell script. $real is the tool itself, $folder that of the case.
    void replaceTool(const std::string& tool, const std::string& script) const {
        std::ofstream(folder / "bin" / tool)
            << "#!/bin/sh\nfolder=" << folder << " real=$(PATH=" << g_path << " command -v " << tool
            << ")\n"
            << script << '\n';
        fs::permissions(folder / "bin" / tool, fs::perms::all);
    }

    void startService(std::vector<std::string> options = {},
                      const std::map<std::string, std::string>& variables = {}) {
        options.insert(options.begin(), QNT_SERVICE);
        service.emplace(options, folder / "output", variables);
    }
    // With support/preload.cpp.
    void startPreloaded(std::map<std::string, std::string> variables,
                        const std::vector<std::string>& options = {}) {
        variables["LD_PRELOAD"] = folder / "preload.so";
        startService(options, variables);
    }
    // Waits for the service, which ends by itself or after SIGTERM; -1 if it does not end.
    int exitCode() { return service->wait(kPatience).value_or(-1); }
    int stopService() {
        service->signal(SIGTERM);
        return exitCode();
    }

    // The messages of the log, without time, level, tag and ids.
    static std::vector<std::string> records() {
        std::ifstream log(kLog);
        std::vector<std::string> messages;
        for (std::string record; std::getline(log, record);)
            messages.push_back(record.substr(record.find("/ ") + 2));
        return messages;
    }
    static bool waitForRecord(const std::string& text) {
        return waitUntil([&] { return contents(kLog).find(text) != std::string::npos; });
    }

    // A queue has a name, and a host printer's id at the end of its device URI. Any bytes may be in
    // them, as no shell sees them.
    static void addQueue(const std::string& name, const std::string& id,
                         const std::string& uri = kUri) {
        sim::Process lpadmin({"lpadmin", "-p", name, "-v", uri + id, "-E"});
        ASSERT_EQ(lpadmin.wait(kPatience), 0) << name << ' ' << uri << id;
    }
    static void deleteQueue(const std::string& name) {
        sim::Process lpadmin({"lpadmin", "-x", name});
        ASSERT_EQ(lpadmin.wait(kPatience), 0) << name;
    }
    static bool hasQueue(const std::string& name, const std::string& id) {
        const std::string line = "device for " + name + ": " + kUri + id + '\n';
        return sim::commandOutput("lpstat -v").find(line) != std::string::npos;
    }
    static bool isDefault(const std::string& name) {
        return sim::commandOutput("lpstat -d") == "system default destination: " + name + '\n';
    }
    static void expectDefault(const std::string& name) {
        EXPECT_TRUE(waitUntil([&] { return isDefault(name); })) << name;
    }

    static constexpr char kUri[] = "usb://HP/Color%20LaserJet%208500?serial=";
    static constexpr char kLog[] = "/var/log/quintaris.log";
    const sim::TemporaryFolder temporary;
    const fs::path folder = temporary.path;
    std::optional<sim::Process> service;
};

class ServiceTest : public GuestTest {
protected:
    // Sends a command and waits until the host is idle. (Not for one more result, as a result may
    // come twice: an exchange that a signal to the service cancels is repeated.)
    void carryOut(const sim::HostCommand& command) {
        host.send(command);
        ASSERT_TRUE(host.waitUntilIdle());
    }

    sim::SimulatedHost host;
};

}  // namespace qnt
