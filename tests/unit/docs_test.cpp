// Holds the documents to the code: the examples of the protocol, and the options.

#include <gmock/gmock.h>

#include <fstream>
#include <regex>

#include "hostlink/kavelink.h"
#include "hostlink/request_device.h"
#include "hostlink/status_messages.h"
#include "printing/workers.h"
#include "protocol/printing_messages.h"
#include "sim/device_file.h"
#include "sim/guest_namespace.h"
#include "sim/host_messages.h"
#include "tests/support/private_cups.h"

namespace {

using sim::Bytes;
using Examples = std::map<std::string, Bytes>;

std::string document(const std::string& path) {
    std::ifstream file(QNT_SOURCE_DIR "/" + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// By name. Each line has an offset and bytes, "00 x 60" for many, and words behind "#".
Examples examples() {
    Examples found;
    std::istringstream text(document("docs/protocol.md"));
    for (std::string line, name; std::getline(text, line);) {
        if (line.starts_with("```")) {
            name = line.starts_with("```hex ") ? line.substr(7) : "";
            continue;
        }
        std::istringstream words(name.empty() ? "" : line.substr(0, line.find('#')));
        std::string word;
        if (words >> word) {
            EXPECT_EQ(std::stoul(word, nullptr, 16), found[name].size()) << name;
        }
        while (words >> word) {
            const bool many = word == "x" && words >> word;
            const auto times = many ? std::stoul(word) - 1 : 1;
            const auto byte = many ? found[name].back() : std::stoul(word, nullptr, 16);
            found[name].insert(found[name].end(), times, static_cast<std::uint8_t>(byte));
        }
    }
    return found;
}

void addRunLoopRequests(Examples& built) {
    qnt::ByteArray buffer;
    std::uint32_t size = 0;
    const auto add = [&](const char* name) {
        built[name] = Bytes(buffer.data(), buffer.data() + buffer.size());
    };
    buffer.resize(qnt::kPrintingCmdHeaderSize);
    qnt::fillPrintingCmdRequest(buffer, 17, size);
    add("get-printing-cmd");
    qnt::fillPrintingCmdPendingRequest(buffer, size);
    add("printing-cmd-pending");
    qnt::fillPrintingCmdAnsRequest(buffer, qnt::CmdDone, 17, size);
    add("printing-cmd-answer");
    qnt::fillUserDeletedPrintersRequest(buffer, {{"TAGA", ""}, {"TAGBC", ""}});
    add("user-deleted-printers");
}

// What the code has read of a command, written again.
Bytes readAndWritten(const Bytes& answer) {
    qnt::PrintingCmd read;
    EXPECT_TRUE(qnt::parsePrintingCmd(
        read, answer.data() + qnt::kPrintingCmdHeaderSize,
        static_cast<std::uint32_t>(answer.size()) - qnt::kPrintingCmdHeaderSize));
    sim::HostCommand command{read.code, read.printerId, {}};
    for (const qnt::QueueBinding& printer : read.printers)
        command.printers.push_back({printer.id, printer.queueName});
    return sim::encodeAnswer(command, 17);
}

// Its header and descriptors, with the addresses that the examples have.
Bytes recordOf(const sim::Submission& submission) {
    const auto append = [](Bytes& bytes, const auto& part) {
        const auto* start = reinterpret_cast<const std::uint8_t*>(&part);
        bytes.insert(bytes.end(), start, start + sizeof part);
    };
    Bytes record;
    append(record, submission.header());
    bool callHeader = submission.header().code == qnt::QntKlReqLinkCall;
    for (qnt::BufferDescriptor buffer : submission.buffers()) {
        buffer.address = std::exchange(callHeader, false) ? 0x7f0000002000 : 0x7f0000001000;
        append(record, buffer);
    }
    return record;
}

// What the five requests of addDeviceTraffic show, and how they are answered; "" for nothing.
struct Traffic {
    const char* record;
    const char* buffers[2];
    const char* answer;
};
constexpr Traffic kTraffic[] = {
    {"link-probe", {"", ""}, ""},
    {"", {"", "initialized"}, ""},
    {"link-request", {"link-header", "stopped"}, ""},
    {"", {"get-default-printer", ""}, "room-answer"},
    {"printing-request", {"", ""}, "default-printer-answer"},
};

void addDeviceTraffic(Examples& built, const Examples& shown) {
    qnt::CPrintingTool tool;
    tool.m_running = true;
    const Traffic* next = kTraffic;
    const auto submitted = [&](const sim::SubmissionPtr& submission) {
        built[next->record] = recordOf(*submission);
        for (std::size_t i = 0; i < submission->buffers().size(); ++i)
            built[next->buffers[i]] = submission->readBuffer(i).value();
        if (*next->answer != 0)
            submission->writeBuffer(1, shown.at(next->answer));
        tool.m_running = ++next != std::end(kTraffic);
        submission->complete(0);
    };
    const sim::DeviceFile device({submitted, [](const sim::SubmissionPtr&) {}});
    constexpr char kId[] = "quintaris.PrintingTool.guest.lin";
    qnt::KavelinkLink link;
    qnt::ToolVersionRecord version;
    qnt::fillVersionRecord(version, 0, 0);
    qnt::kavelinkOpen(&link, qnt::kLinkDeviceOnly);
    qnt::sendToolStatus(&link, {.applicationId = kId,
                                .applicationName = "Quintaris Shared Printers Tool",
                                .version = &version,
                                .state = "initialized"});
    qnt::sendToolStatus(&link, {.applicationId = kId, .state = "stopped"});
    qnt::kavelinkClose(&link);
    qnt::openRequestDevice();
    qnt::defaultPrinterLoop(tool);
    built["room-answer"] = sim::roomRequest(108);
    built["default-printer-answer"] = sim::encodeDefaultPrinter(tool.m_defaultPrinterId, 5);
    built.erase("");
}

TEST(ProtocolDocument, ShowsWhatTheCodeBuildsAndReads) {
    sim::enterGuestNamespace("/tmp/qnt-docs-test-log");
    const Examples shown = examples();
    Examples built;
    addRunLoopRequests(built);
    for (const char* name :
         {"add-printer", "delete-printer", "delete-offline", "printer-list", "wait-all-offline"})
        built[name] = readAndWritten(shown.at(name));
    addDeviceTraffic(built, shown);
    for (const auto& [name, bytes] : shown)
        EXPECT_EQ(built[name], bytes) << name;
    EXPECT_EQ(built.size(), shown.size());
}

TEST(Options, AreTheSameInHelpReadmeAndManPage) {
    const auto pairs = [](const std::string& text, const std::regex& pattern) {
        std::map<std::string, std::string> found;
        for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end;
             ++match)
            found[(*match)[1]] = (*match)[2];
        return found;
    };
    const std::regex usageLine("\n +-([a-z]) +: ([^\n]*)");
    const auto help = pairs(sim::commandOutput(QNT_SERVICE " -h"), usageLine);
    EXPECT_EQ(help.size(), 3u);
    EXPECT_EQ(help, pairs(document("README.md"), usageLine));
    EXPECT_EQ(help, pairs(document("packaging/qntspooler.8"),
                          std::regex("\n\\.It Fl ([a-z])[^\n]*\n([^\n]*)")));
}

}  // namespace
