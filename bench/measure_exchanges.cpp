// How many exchanges a second the run loop makes with a host that answers at once, beside a bare
// loop of submissions to the same device.

#include <array>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/measure.h"
#include "bench/submit_loop.h"
#include "protocol/little_endian.h"
#include "sim/device_file.h"

namespace bench {
namespace {

constexpr std::chrono::milliseconds kWindow(500);
constexpr std::chrono::milliseconds kSettling(50);
constexpr std::chrono::seconds kStarting(1);
constexpr std::chrono::seconds kLongest(10);

enum Side : std::size_t { kService, kLoop, kSides };

// Answers the requests for a command of the side whose turn it is, always with the demand for a
// buffer as large as the one at hand, which costs the run loop nothing but the next request. What
// else is sent waits; link calls succeed.
class TerseHost {
public:
    TerseHost()
        : m_device({[this](const sim::SubmissionPtr& request) { take(request); },
                    [this](const sim::SubmissionPtr& request) { answer(*request); }}) {}

    // Exchanges a second of one side, while the other waits.
    double rate(Side side) {
        setTurn(side);
        std::this_thread::sleep_for(kSettling);
        const auto start = std::chrono::system_clock::now();
        const std::size_t before = count(side);
        std::this_thread::sleep_for(kWindow);
        const auto made = static_cast<double>(count(side) - before);
        return made / secondsBetween(start, std::chrono::system_clock::now());
    }

private:
    std::size_t count(Side side) {
        const std::lock_guard lock(m_mutex);
        return m_counts[side];
    }

    void setTurn(Side side) {
        const std::lock_guard lock(m_mutex);
        m_turn = side;
        if (const sim::SubmissionPtr waiting = std::exchange(m_waiting[side], nullptr))
            answer(*waiting);
    }

    void take(const sim::SubmissionPtr& request) {
        if (request->header().code == qnt::QntKlReqLinkCall) {
            request->complete(qnt::kStatusDone);
            return;
        }
        const auto bytes = request->readBuffer(0);
        const std::lock_guard lock(m_mutex);
        if (!bytes || field(*bytes, qnt::PrintingCmdHeader::kRequestType) != qnt::GetPrintingCmd) {
            m_aside = request;
            return;
        }
        const bool isLoop = field(*bytes, qnt::PrintingCmdHeader::kSequence) == kLoopSequence;
        const Side side = isLoop ? kLoop : kService;
        ++m_counts[side];
        if (side == m_turn)
            answer(*request);
        else
            m_waiting[side] = request;
    }

    static std::uint32_t field(const sim::Bytes& header, std::uint32_t offset) {
        return qnt::readU32(header.data() + offset);
    }

    void answer(sim::Submission& request) const {
        request.writeBuffer(1, m_demand);
        request.complete(qnt::kStatusDone);
    }

    static sim::Bytes demand() {
        sim::Bytes bytes(qnt::kPrintingCmdHeaderSize);
        qnt::writeU32(bytes.data() + qnt::PrintingCmdHeader::kRequiredSize,
                      qnt::kPrintingCmdHeaderSize);
        return bytes;
    }

    const sim::Bytes m_demand = demand();

    // Under the mutex.
    std::mutex m_mutex;
    Side m_turn = kService;
    std::array<std::size_t, kSides> m_counts{};
    std::array<sim::SubmissionPtr, kSides> m_waiting;
    sim::SubmissionPtr m_aside;  // the question for the default printer

    sim::DeviceFile m_device;
};

// The exit of a service whose open request is answered at once, where it is otherwise cancelled.
void measureAnsweredStop(TerseHost& host, sim::Process& service) {
    host.rate(kLoop);
    const auto start = std::chrono::system_clock::now();
    service.signal(SIGTERM);
    if (!service.wait(kLongest))
        throw std::runtime_error("The service does not stop.");
    printValue("stop answered", "", kOurs, secondsBetween(start, std::chrono::system_clock::now()));
}

}  // namespace

void measureExchanges(int rounds) {
    TerseHost host;
    sim::Process service = startService();
    const sim::Process loop({"/proc/self/exe", kSubmitLoop});
    std::this_thread::sleep_for(kStarting);
    for (int round = 0; round < rounds; ++round) {
        printValue("exchanges", "", kOurs, host.rate(kService));
        printValue("exchanges", "", "bare loop", host.rate(kLoop));
    }
    measureAnsweredStop(host, service);
}

}  // namespace bench
