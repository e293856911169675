#pragma once

#include <cstdint>
#include <string>

#include "TidewellAPI.h"

// Setting a device clock, from SNTP or from the device's own time sources.
namespace vistrel::devices {

// A device handle with the time to give it.
struct DeviceHandle {
    TidewellAPIHandle handle = 0;
    TidewellAPITimingTime timing{};
};

// With source TidewellAPITimeSource_SNTP the time is fetched from configuration().ntp_server
// first (10 tries); otherwise `device.timing` goes to the device unchanged. Holds the device
// mutex throughout. True when the device took the time.
bool set_device_time(DeviceHandle& device);

// One SNTP exchange with `server` ("host" or "host:port", default port 123): 0 and the
// transmit time on success, negative on failure (-1 time-out, -2 wait error).
int sntp_query(const std::string& server, uint32_t& seconds, uint64_t& nanoseconds);

}  // namespace vistrel::devices
