// The unmodified binary's start and end: its options, its records and its exit codes.

#include <gmock/gmock.h>
#include <sys/mount.h>

#include "sim/hypervisor.h"
#include "tests/support/fixture.h"

namespace qnt {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using EntryTest = GuestTest;

TEST_F(EntryTest, OptionsAreReadFromLeftToRightUntilHelp) {
    const std::map<std::string, std::vector<std::string>> rows = {
        {"0", {"-l0 -h", "-l abc -h", "-l '' -h"}},
        {"1", {"-l 4294967297 -h", "-v -l 1 -h"}},
        {"2", {"-h", "-h -v", "-l 4 -h", "-l -1 -h", "-l 2x -h", "-x word -h"}},
        {"3", {"-v -h", "-l 3 -h", "-l 1 -v -h"}}};
    for (const auto& [level, lines] : rows)
        for (const std::string& options : lines) {
            int status = -1;
            EXPECT_EQ(sim::commandOutput("'" QNT_SERVICE "' " + options, &status),
                      "Quintaris Shared Printers Tool usage:\n " QNT_SERVICE
                      " [options]\nOptions:\n -h   : This help\n"
                      " -l   : Logging level [0, 3], default " +
                          level + "\n -v   : Verbose logging, set log level to 3\n")
                << options;
            EXPECT_EQ(status, 0);
        }
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(EntryTest, WithoutLpadminItEndsAlsoWithUnknownOptions) {
    startService({"-x", "-l"}, {{"PATH", folder / "bin"}});
    EXPECT_EQ(exitCode(), 0);
    EXPECT_THAT(records(), ElementsAre("starting . . .", "lpadmin not found in system",
                                       "CUPS not available. Will exit.", "closed, rc = 0"));
    EXPECT_THAT(contents(folder / "output"), HasSubstr("'x'"));
}

TEST_F(EntryTest, LpstatHasSevenTriesToAnswer) {
    for (const int answered : {4, 7, 8}) {
        replaceTool("lpstat", "echo $# >>$folder/tries; [ $(wc -l <$folder/tries) -ge " +
                                  std::to_string(answered) + " ] && exec $real $*");
        startPreloaded({{"QNT_SLEEPS", folder / "sleeps"}, {"QNT_SECOND", "0"}});
        EXPECT_EQ(exitCode(), answered > 7 ? 0 : 1);
        std::string sleeps, tries = "0\n";
        for (int number = 1; number < std::min(answered, 7); ++number, tries += "0\n")
            sleeps += "10\n";
        EXPECT_EQ(contents(folder / "sleeps"), sleeps);
        EXPECT_EQ(contents(folder / "tries"), tries);
        EXPECT_EQ(records().at(1), answered > 7 ? "cups is not responding"
                                                : "Could not open link to Open Kavelink: -5");
        for (const fs::path file : {"sleeps", "tries"})
            fs::remove(folder / file);
        fs::resize_file(kLog, 0);
    }
}

TEST_F(EntryTest, AStopSignalDuringTheCupsWaitHasItsDefaultEffect) {
    replaceTool("lpstat", "touch $folder/asked; exit 1");
    for (const int signal : {SIGTERM, SIGINT}) {
        const std::string ignore = "--ignore-signal=" + std::to_string(signal);
        service.emplace(std::vector<std::string>{"env", ignore, QNT_SERVICE});
        EXPECT_TRUE(eventually([&] { return fs::exists(folder / "asked"); }));
        service->signal(signal);
        EXPECT_EQ(exitCode(), 128 + signal);
        EXPECT_THAT(records(), ElementsAre("starting . . ."));
        fs::remove(folder / "asked");
        fs::resize_file(kLog, 0);
    }
}

TEST_F(EntryTest, WithoutALinkItFails) {
    const std::vector<std::string> expected = {
        "starting . . .", "Could not open link to Open Kavelink: -5", "closed, rc = 1"};
    startService();  // no device
    EXPECT_EQ(exitCode(), 1);
    EXPECT_EQ(records(), expected);
    fs::resize_file(kLog, 0);
    sim::SimulatedHost host;
    host.refuseLink();  // so the backdoor is tried, and faults
    startService();
    EXPECT_EQ(exitCode(), 1);
    EXPECT_EQ(records(), expected);
    EXPECT_EQ(host.exchanges().size(), 1U);
}

TEST_F(EntryTest, WithoutALinkOnTheDeviceStatusMessagesGoOverTheBackdoor) {
    sim::SimulatedHost host;
    host.refuseLink();
    host.hold(sim::kLinkCall);  // until the hypervisor takes the instruction
    // The leak sanitizer fails in a traced process.
    startService({},
                 {{"ASAN_OPTIONS", std::getenv("ASAN_OPTIONS") + std::string(":detect_leaks=0")}});
    const sim::Hypervisor hypervisor(service->pid(), host);
    host.release(sim::kLinkCall);
    EXPECT_TRUE(host.waitUntilIdle());
    EXPECT_EQ(stopService(), 0);
    std::vector<std::string> received;
    for (const sim::Exchange& exchange : host.exchanges(sim::kLinkCall))
        received.push_back(sim::describeRequest(exchange));
    EXPECT_THAT(received,
                ElementsAre("link probe", "backdoor probe",
                            "backdoor message of 209 bytes, state 'initialized' transfers=2",
                            "backdoor message of 111 bytes, state 'stopped' transfers=1"));
}

// The stop signal ends the wait for "initialized" and changes nothing else.
TEST_F(EntryTest, ADeviceLostAfterTheLinkEndsItWithStopped) {
    sim::SimulatedHost host;
    host.answerNext(sim::kLinkCall, sim::status(0));
    host.answerNext(sim::kLinkCall, sim::silence());
    startService();
    ASSERT_TRUE(host.waitUntil([&] { return host.exchanges().size() == 2; }));
    ASSERT_EQ(mount("none", sim::kDriverFolder, "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(stopService(), 1);
    umount(sim::kDriverFolder);
    EXPECT_THAT(records(),
                ElementsAre("starting . . .", "Open Kavelink link was opened.", "Closing . . .",
                            "Error: Can't open /proc/driver/qnt_kl", "Failed to open Kavelink",
                            "Open Kavelink link was closed.", "closed, rc = 1"));
    EXPECT_THAT(host.statusMessages(), ElementsAre(documented("stopped")));
}

TEST_F(EntryTest, ItWorksWhateverItInherits) {
    sim::SimulatedHost host;
    sim::commandOutput("localedef -i de_DE -f UTF-8 " + (folder / "de_DE.UTF-8").string());
    const std::string german = "LC_ALL=de_DE.UTF-8 LOCPATH=" + folder.string();
    addQueue("Office_Laser", "TAG1");
    host.setDefault("TAG1");
    ASSERT_THAT(sim::commandOutput(german + " lpstat -v"), StartsWith("Ger\u00e4t "));
    // Standard files, a blocked and an ignored signal, a pending alarm, the language.
    const std::string closed = "exec <&- >&- 2>&-; exec env " + german +
                               " perl -e 'alarm 1; exec @ARGV' '" QNT_SERVICE "' -l 1";
    service.emplace(std::vector<std::string>{"env", "--block-signal=INT", "--ignore-signal=CHLD",
                                             "sh", "-c", closed});
    ASSERT_TRUE(host.waitUntilIdle());
    expectDefault("Office_Laser");
    service->signal(SIGINT);
    EXPECT_EQ(exitCode(), 0);
    EXPECT_THAT(host.statusMessages(),
                ElementsAre(documented("initialized"), documented("stopped")));
    EXPECT_THAT(records(),
                ElementsAre("starting . . .", "Set default printer: 'TAG1'", "closed, rc = 0"));
}

TEST_F(EntryTest, StartAndEndAreLoggedAndTheToolsInheritNoFiles) {
    replaceTool("lpstat",
                "{ ls -l /proc/$$/fd; grep SigBlk: /proc/$$/status; } >>$folder/files;"
                "exec $real \"$@\"");
    sim::SimulatedHost host;
    startService({"-l", "2"});
    ASSERT_TRUE(host.waitUntilIdle());
    // The check at the start, the first listing, and a worker's, which blocks the stop signals.
    const std::string count = "grep -c SigBlk: " + (folder / "files").string();
    ASSERT_TRUE(eventually([&] { return std::stoi(sim::commandOutput(count)) >= 3; }));
    EXPECT_EQ(stopService(), 0);
    // A worker whose request returns although it is cancelled writes the fifth record as well.
    EXPECT_EQ(
        sim::commandOutput("cut -c 20- " + std::string(kLog) + " | sed 's|:[0-9a-f:]*||' | uniq"),
        "F /qntspooler/ starting . . .\nI /qntspooler/ Open Kavelink link was opened.\n"
        "I /QntCCBase/ Opened /proc/driver/qnt_kl\nI /qntspooler/ Closing . . .\n"
        "I /qntspooler/ SendRequest() was canceled\n"
        "I /qntspooler/ Open Kavelink link was closed.\nF /qntspooler/ closed, rc = 0\n");
    const std::string files = contents(folder / "files");
    for (const char* own : {"qnt_kl", "quintaris.log", "SigBlk:\t0000000000004002"})
        EXPECT_EQ(files.find(own), std::string::npos) << files;
}

}  // namespace
}  // namespace qnt
