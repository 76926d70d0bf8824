// The request device of the guest's kernel driver.
//
// A request is submitted by writing its record's address. The write returns when the host has
// answered; status and answer are then final. Until then the record and its buffers stay in place.
// Any number of threads may have a submission under way, each with a record and buffers of its
// own. A submission is a cancellation point.

#pragma once

#include <sys/types.h>

#include <cstdint>

#include "hostlink/device_request.h"

namespace qnt {

// The service's one descriptor for the printing traffic. Opened and closed by the entry point
// before other threads exist; each logs its outcome. openRequestDevice: true when the device is
// open. closeRequestDevice: true when an open device was closed without error.
bool openRequestDevice();
bool closeRequestDevice();
bool isRequestDeviceOpen();

// Hands a request to the host. Returns what write(2) does: not negative when the driver took the
// request, negative with errno when it refused it; 0, without writing, when the device is not open.
ssize_t submitRequest(DeviceRequest& request);

// The same through a descriptor of the caller's, for a request of any shape.
ssize_t submitRequestTo(int descriptor, DeviceRequestHeader& request);

// One exchange of the printing protocol: the first `inSize` bytes of the buffer go to the host, up
// to `outSize` bytes of answer come back in their place. Fills the whole request. True when the
// host completed it; a failure is logged, a cancellation at level 2.
bool SendRequest(DeviceRequest& request, void* buffer, std::uint32_t inSize, std::uint32_t outSize);

}  // namespace qnt
