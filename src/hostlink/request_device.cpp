#include "hostlink/request_device.h"

#include <fcntl.h>
#include <unistd.h>

#include "log/log_record.h"

namespace qnt {
namespace {

constexpr char kDeviceTag[] = "QntCCBase";

// Written before other threads exist. The device is open while this is greater than 0. No UniqueFd,
// as it stays open until the process exits, and closeRequestDevice returns the result of close(2).
int requestDeviceFd = 0;

}  // namespace

bool openRequestDevice() {
    requestDeviceFd = open(kRequestDevicePath, O_WRONLY);
    if (requestDeviceFd <= 0) {
        QNT_LOG_AS("", kDeviceTag, kLogAlways, "Error: Can't open %s", kRequestDevicePath);
        return false;
    }
    fcntl(requestDeviceFd, F_SETFD, FD_CLOEXEC);  // no other thread starts a process in between
    QNT_LOG_AS("", kDeviceTag, kLogInfo, "Opened %s", kRequestDevicePath);
    return true;
}

bool closeRequestDevice() {
    if (requestDeviceFd <= 0)
        return false;
    const int result = close(requestDeviceFd);
    requestDeviceFd = 0;
    if (result != 0) {
        QNT_LOG_AS("", kDeviceTag, kLogAlways, "Error: Can't close %s", kRequestDevicePath);
        return false;
    }
    QNT_LOG_AS("", kDeviceTag, kLogInfo, "Closed %s", kRequestDevicePath);
    return true;
}

bool isRequestDeviceOpen() {
    return requestDeviceFd > 0;
}

ssize_t submitRequest(DeviceRequest& request) {
    if (!isRequestDeviceOpen())
        return 0;
    return submitRequestTo(requestDeviceFd, request.header);
}

ssize_t submitRequestTo(int descriptor, DeviceRequestHeader& request) {
    const std::uint64_t address = reinterpret_cast<std::uintptr_t>(&request);
    return write(descriptor, &address, sizeof address);
}

bool SendRequest(DeviceRequest& request, void* buffer, std::uint32_t inSize,
                 std::uint32_t outSize) {
    request = {};
    request.header.code = QntKlReqPrinting;
    request.header.bufferCount = 2;
    request.buffers[0] = describeBuffer(buffer, inSize, 0);
    request.buffers[1] = describeBuffer(buffer, outSize, kBufferWritable);
    const ssize_t taken = submitRequest(request);
    const std::uint32_t status = request.header.status;
    if (taken >= 0 && status == kRequestDone)
        return true;
    if (status == kRequestCanceled)
        QNT_LOG(kLogInfo, "SendRequest() was canceled");
    else
        QNT_LOG(kLogAlways, "SendRequest() failed %x", status);
    return false;
}

}  // namespace qnt
