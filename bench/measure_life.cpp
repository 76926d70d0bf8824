// Start, stop and the speed of the run loop.

#include <fcntl.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "bench/measure.h"
#include "hostlink/request_device.h"
#include "posix/unique_fd.h"
#include "protocol/little_endian.h"

namespace bench {
namespace {

constexpr std::size_t kStartUpChecks = 2;
constexpr std::chrono::milliseconds kSettling(300);
constexpr std::chrono::milliseconds kWindow(500);

// The host cancels the open exchange when the service stops.
void measureStartAndStop(const sim::SimulatedHost& host) {
    const std::size_t before = host.exchanges().size();
    const std::size_t commandsBefore = host.exchanges(qnt::GetPrintingCmd).size();
    const auto start = Clock::now();
    sim::Process service = startQuietly({QNT_SERVICE});
    waitForIdle(host);
    printValue("start/any", secondsSince(start, host.exchanges().at(before).when));
    printValue("start/command",
               secondsSince(start, host.exchanges(qnt::GetPrintingCmd).at(commandsBefore).when));
    std::this_thread::sleep_for(kSettling);
    printValue("stop/cancelled", secondsToStop(service));
}

// Answers each request for a command at once with the demand for a buffer as large as the one
// offered, which costs the run loop nothing but its next request.
class BusyHost {
public:
    double exchangesPerSecond() const {
        std::this_thread::sleep_for(kSettling);
        const auto start = Clock::now();
        const std::size_t before = m_count;
        std::this_thread::sleep_for(kWindow);
        return static_cast<double>(m_count - before) / secondsSince(start);
    }

private:
    void answer(const sim::SubmissionPtr& request) {
        const auto bytes = request->readBuffer(0);
        if (request->header().code == qnt::QntKlReqLinkCall) {
            request->complete(qnt::kRequestDone);
        } else if (bytes &&
                   qnt::readU32(bytes->data() + qnt::PrintingCmdHeader::kRequestTypeOffset) ==
                       qnt::GetPrintingCmd) {
            ++m_count;
            sim::Bytes demand(qnt::kPrintingCmdHeaderSize);
            qnt::writeU32(demand.data() + qnt::PrintingCmdHeader::kRequiredSizeOffset,
                          qnt::kPrintingCmdHeaderSize);
            request->writeBuffer(1, demand);
            request->complete(qnt::kRequestDone);
        } else {
            m_held = request;  // for the default printer, until it is interrupted
        }
    }

    std::atomic<std::size_t> m_count = 0;
    sim::SubmissionPtr m_held;
    sim::DeviceFile m_device{
        {[this](const sim::SubmissionPtr& request) { answer(request); },
         [](const sim::SubmissionPtr& request) { request->complete(qnt::kRequestCanceled); }}};
};

void measureExchanges(const BusyHost& host) {
    sim::Process service = startQuietly({QNT_SERVICE});
    printValue("exchanges", host.exchangesPerSecond());
    printValue("stop/answered", secondsToStop(service));
    const sim::Process loop = startQuietly({"/proc/self/exe", "submit"});
    printValue("exchanges/loop", host.exchangesPerSecond());
}

}  // namespace

void submitForever() {
    const qnt::UniqueFd device(open(qnt::kRequestDevicePath, O_WRONLY | O_CLOEXEC));
    std::uint8_t request[qnt::kPrintingCmdHeaderSize] = {};
    qnt::writeU32(request + qnt::PrintingCmdHeader::kRequestTypeOffset, qnt::GetPrintingCmd);
    std::uint8_t answer[qnt::kPrintingCmdHeaderSize];
    qnt::DeviceRequest submission{};
    submission.header.code = qnt::QntKlReqPrinting;
    submission.header.bufferCount = 2;
    submission.buffers[0] = qnt::describeBuffer(request, sizeof request, 0);
    submission.buffers[1] = qnt::describeBuffer(answer, sizeof answer, qnt::kBufferWritable);
    while (qnt::submitRequestTo(device.get(), submission.header) >= 0) {
    }
}

void measureLife(int rounds) {
    {
        const sim::SimulatedHost host;
        auto lines = recordLines([] {},
                                 [&] {
                                     const sim::Process service = startQuietly({QNT_SERVICE});
                                     waitForIdle(host);
                                 });
        lines.resize(kStartUpChecks + 1);
        const Command checksAndListing = scriptOf("start.sh", lines);
        lines.resize(kStartUpChecks);
        const Command checks = scriptOf("checks.sh", lines);
        for (int round = 0; round < rounds; ++round) {
            measureStartAndStop(host);
            printValue("start/any/sh", secondsOf(checks));
            printValue("start/command/sh", secondsOf(checksAndListing));
        }
    }
    // On several CPUs, the wake-ups between host and guest take many times as long as the rest.
    cpu_set_t oneCpu = {};
    CPU_SET(0, &oneCpu);
    sched_setaffinity(0, sizeof oneCpu, &oneCpu);
    const BusyHost host;
    const auto daemons = otherDaemons();
    for (int round = 0; round < rounds; ++round) {
        measureExchanges(host);
        for (const auto& [name, command] : daemons) {
            sim::Process process = startQuietly(command);
            std::this_thread::sleep_for(kSettling);
            printValue("stop/" + name, secondsToStop(process));
        }
    }
}

}  // namespace bench
