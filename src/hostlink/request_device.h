// The request device of the guest's kernel driver.
//
// A request is submitted by writing its record's address. The write returns when the host has
// answered; status and answer are then final. Until then the record and its buffers must stay in
// place. Any number of threads may submit at the same time, each with its own record and buffers.
//
// A submission is a cancellation point. This relies on the driver: when the write of a cancelled
// thread returns, neither the driver nor the host uses the record or its buffers any more, which
// the unwinding thread then frees.

#pragma once

#include <sys/types.h>

#include <cstdint>

#include "hostlink/device_request.h"

namespace qnt {

// Opens the service's one descriptor for the printing traffic. runService calls it before other
// threads exist. False, with a log record, on failure; isRequestDeviceOpen returns the same.
bool openRequestDevice();
// True if an open device was closed without error; false, without a log record, if none was open.
// Only tests call it: the service leaves the device open until the process exits.
bool closeRequestDevice();
bool isRequestDeviceOpen();

// Submits a request to the host. Returns the result of write(2): not negative if the driver took
// the request, negative with errno if it refused it; 0, without writing, if the device is not open.
[[nodiscard]] ssize_t submitRequest(DeviceRequest& request);

// As submitRequest, through the given descriptor and for a record of any layout.
[[nodiscard]] ssize_t submitRequestTo(int descriptor, DeviceRequestHeader& request);

// One exchange of the printing protocol: sends the first `inSize` bytes of the buffer to the host,
// whose answer of up to `outSize` bytes replaces them. Fills in the whole request. True if the host
// completed it; a failure is logged, a cancellation at kLogInfo. Also true, without an exchange, if
// the device is not open, as submitRequest then does not fail; the service ends before that.
[[nodiscard]] bool SendRequest(DeviceRequest& request, void* buffer, std::uint32_t inSize,
                               std::uint32_t outSize);

}  // namespace qnt
