// Transport under BurnAgent: finds the device that runs the burner image by its instance id, claims
// its interface and gives bounded, blocking reads and writes on its endpoints.
//
// A device is used by one thread at a time. The four operations are exported by the program.
#pragma once

#include <cstdint>

struct VORLAN_DEVICE;

#define VORLAN_EXPORT __attribute__((visibility("default")))

extern "C" {

// Opens the device; null, with the reason in the run log, if that fails. An interruption of the
// calling thread ends every transfer on the device from then on.
VORLAN_EXPORT VORLAN_DEVICE* vorlan_device_open(const char* device_id);

// Reads up to `buf_size` bytes from EP_ADDR_CMD_RESP_IN or EP_ADDR_DATA_RESP_IN and returns how
// many came. `timeout` in ms holds anew whenever something came before it ran out. `error`, if not
// null, is 0 or the system code of a failure: libusbk::kCancelled for a time-out with nothing read.
// A transfer may end short with no error.
VORLAN_EXPORT std::uint32_t vorlan_device_read(VORLAN_DEVICE* pVorDev, std::uint8_t* buf,
                                               std::uint32_t buf_size, std::uint8_t ep_addr,
                                               std::uint32_t timeout, std::uint32_t* error);

// Writes the whole buffer to EP_ADDR_CMD_RESP_OUT or EP_ADDR_DATA_RESP_OUT and returns how many
// bytes went out, 0 on failure. `timeout` and `error` as above.
VORLAN_EXPORT std::uint32_t vorlan_device_write(VORLAN_DEVICE* pVorDev, const std::uint8_t* buf,
                                                std::uint32_t buf_size, std::uint8_t ep_addr,
                                                std::uint32_t timeout, std::uint32_t* error);

// Releases the interface and the handle. Null is ignored.
VORLAN_EXPORT void vorlan_device_close(VORLAN_DEVICE* pVorDev);
}
