#include "bench/submit_loop.h"

#include <fcntl.h>

#include "hostlink/request_device.h"
#include "posix/unique_fd.h"
#include "protocol/little_endian.h"
#include "protocol/printing_format.h"

namespace bench {

int submitLoop() {
    const qnt::UniqueFd device(open(qnt::kRequestDevicePath, O_WRONLY | O_CLOEXEC));
    std::uint8_t buffer[qnt::kPrintingCmdHeaderSize] = {};
    qnt::writeU32(buffer + qnt::PrintingCmdHeader::kRequestType, qnt::GetPrintingCmd);
    qnt::writeU32(buffer + qnt::PrintingCmdHeader::kSequence, kLoopSequence);
    qnt::DeviceRequest request{};
    request.header.code = qnt::QntKlReqPrinting;
    request.header.bufferCount = 2;
    request.buffers[0] = qnt::describeBuffer(buffer, sizeof buffer, 0);
    std::uint8_t answer[qnt::kPrintingCmdHeaderSize];
    request.buffers[1] = qnt::describeBuffer(answer, sizeof answer, qnt::kBufferWritable);
    while (qnt::submitRequestTo(device.get(), request.header) >= 0) {
    }
    return 1;
}

}  // namespace bench
