// Any bytes as the answers that the default printer's worker gets. The worker is the real one; the
// exchange with the host and the shell stand in for the service's own.

#include <sanitizer/asan_interface.h>

#include "hostlink/request_device.h"
#include "posix/shell_command.h"
#include "printing/workers.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

fuzz::Answers g_answers;
qnt::CPrintingTool* g_tool = nullptr;

// What the worker must have taken from the answers so far.
std::uint32_t g_sequence = 0;
std::string g_printerId;

void follow(const std::uint8_t* buffer, std::size_t size) {
    g_sequence = qnt::readU32(buffer + 8);
    const std::size_t room = size > 80 ? size - 80 : 0;
    const std::size_t length = std::min<std::size_t>(room, qnt::readU32(buffer + 12));
    const auto items = fuzz::readItems(fuzz::Bytes(buffer + 80, buffer + 80 + length)).items;
    if (!items.empty() && items[0].type == qnt::PrinterId)
        g_printerId = items[0].text();
}

}  // namespace

namespace qnt {

bool SendRequest(DeviceRequest&, void* bytes, std::uint32_t inSize, std::uint32_t outSize) {
    auto* buffer = static_cast<std::uint8_t*>(bytes);
    assert(inSize == 80 && readU32(buffer) == 1 && readU32(buffer + 4) == GetDefaultPrinter);
    assert(__asan_region_is_poisoned(buffer, std::max(inSize, outSize)) == nullptr);
    assert(readU32(buffer + 8) == g_sequence && g_tool->m_defaultPrinterId == g_printerId);
    g_tool->m_running = g_answers.deliver(buffer, outSize);
    if (g_tool->m_running && readU32(buffer + 16) == 0)
        follow(buffer, outSize);
    return g_tool->m_running;
}

bool CommandOutput::open(const std::string&) {
    return false;
}
bool CommandOutput::readLine(char (&)[kLineBufferSize]) {
    return false;
}
void CommandOutput::close() {}
ShellChild::~ShellChild() = default;
int runCommand(const std::string&) {
    return 0;
}

}  // namespace qnt

extern "C" unsigned sleep(unsigned) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qnt::CPrintingTool tool;
    g_tool = &tool;
    g_answers = {{data, data + size}};
    g_sequence = 0;
    g_printerId.clear();
    tool.m_running = true;
    qnt::defaultPrinterLoop(tool);
    return 0;
}
