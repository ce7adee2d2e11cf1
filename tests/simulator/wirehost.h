// A host of bare wire bytes for the tests of the virtual USB devices: it calls the table directly
// and knows nothing of what the product makes of it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simulator/virtualusbbus.h"
#include "vorlan/burn/libusbktable.h"

namespace simulator {

using ByteVector = std::vector<std::uint8_t>;

inline ByteVector pattern(std::size_t size, unsigned seed = 1) {
    ByteVector bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(seed + i * 31 + i / 251);
    return bytes;
}

inline void put32(ByteVector& bytes, std::uint64_t value, int width = 4) {
    for (int i = 0; i < width; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> 8 * i));
}

inline ByteVector record(std::uint8_t code, std::uint8_t flags, std::uint32_t address = 0,
                         std::uint32_t size = 0) {
    ByteVector bytes{flags, 0, 0, static_cast<std::uint8_t>(code << 1)};
    put32(bytes, address);
    put32(bytes, size);
    put32(bytes, 0);
    return bytes;
}

inline ByteVector crcRecord(std::uint64_t crc) {
    ByteVector bytes{8, 0, 0, 0x0C};
    put32(bytes, crc, 8);
    put32(bytes, 0);
    return bytes;
}

inline ByteVector memBegin(std::uint32_t size) {
    ByteVector bytes{0, 5, 16, 0, 0, 0, 0, 0};
    put32(bytes, size);
    put32(bytes, (size + 2047) / 2048);
    put32(bytes, 2048);
    put32(bytes, 0);
    return bytes;
}

inline ByteVector memData(const ByteVector& payload, std::uint32_t sequence) {
    ByteVector bytes{0, 7};
    put32(bytes, payload.size() + 16, 2);
    std::uint8_t sum = 0xEF;
    for (const std::uint8_t byte : payload)
        sum ^= byte;
    put32(bytes, sum);
    put32(bytes, payload.size());
    put32(bytes, sequence);
    put32(bytes, 0, 8);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

inline ByteVector memEnd() {
    return {0, 6, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
}

// One handle on one device, with a slot for each endpoint.
class WireHost {
  public:
    WireHost(const std::string& deviceId, bool claims) {
        libusbk::DevicePattern pattern{};
        deviceId.copy(pattern.deviceId, libusbk::kTextSize - 1);
        libusbk::DeviceList* list = nullptr;
        EXPECT_TRUE(usb.LstK_InitEx(&list, 0, &pattern));
        const libusbk::DeviceEntry* entry = nullptr;
        EXPECT_TRUE(usb.LstK_FindByVidPid(list, 0x1234, 0x5678, &entry));
        EXPECT_TRUE(usb.UsbK_Init(&handle, entry));
        EXPECT_TRUE(usb.LstK_Free(list));
        if (claims) {
            EXPECT_TRUE(usb.UsbK_ClaimInterface(handle, 0, false));
            claimed_ = true;
        }
        EXPECT_TRUE(usb.OvlK_Init(&pool, handle, 2, 0));
        EXPECT_TRUE(usb.OvlK_Acquire(&inSlot, pool));
        EXPECT_TRUE(usb.OvlK_Acquire(&outSlot, pool));
    }
    ~WireHost() {
        usb.OvlK_Release(inSlot);
        usb.OvlK_Release(outSlot);
        usb.OvlK_Free(pool);
        if (claimed_)
            usb.UsbK_ReleaseInterface(handle, 0, false);
        usb.UsbK_Free(handle);
    }
    WireHost(const WireHost&) = delete;
    WireHost& operator=(const WireHost&) = delete;

    // How many bytes moved, nothing if the transfer failed.
    std::optional<std::uint32_t> send(std::uint8_t endpoint, const ByteVector& bytes) {
        std::uint32_t count = 0;
        usb.OvlK_ReUse(outSlot);
        const bool good =
            usb.UsbK_WritePipe(handle, endpoint, bytes.data(),
                               static_cast<std::uint32_t>(bytes.size()), &count, outSlot) ||
            usb.OvlK_WaitOrCancel(outSlot, 1000, &count);
        return good ? std::optional(count) : std::nullopt;
    }

    // As many bytes as came.
    ByteVector receive(std::uint8_t endpoint, std::uint32_t size) {
        ByteVector bytes(size);
        std::uint32_t count = 0;
        usb.OvlK_ReUse(inSlot);
        if (!usb.UsbK_ReadPipe(handle, endpoint, bytes.data(), size, &count, inSlot))
            usb.OvlK_WaitOrCancel(inSlot, 1000, &count);
        bytes.resize(count);
        return bytes;
    }

    // Status of the ROM loader's reply.
    int rom(const ByteVector& message) {
        send(kDataOut, message);
        const ByteVector reply = receive(kCommandIn, 10);
        return reply.size() == 10 ? reply[8] : -1;
    }

    // "code/cmdorg" of the response to a record, "" if none of 16 bytes came.
    std::string command(const ByteVector& bytes) {
        send(kCommandOut, bytes);
        return response(kCommandIn);
    }
    std::string chunk(const ByteVector& bytes) {
        send(kDataOut, bytes);
        return response(kDataIn);
    }
    std::string response(std::uint8_t endpoint) {
        last = receive(endpoint, 16);
        if (last.size() != 16)
            return "";
        return std::to_string(last[3] >> 1) + "/" + std::to_string(last[4]);
    }
    // After an error: the description.
    std::string description() {
        const ByteVector text = receive(kCommandIn, last[5]);
        return {text.begin(), text.end()};
    }

    const LibusbkTable& usb = libusbkTable();
    libusbk::UsbHandle* handle = nullptr;
    libusbk::OverlappedPool* pool = nullptr;
    libusbk::OverlappedSlot* inSlot = nullptr;
    libusbk::OverlappedSlot* outSlot = nullptr;
    ByteVector last;

  private:
    bool claimed_ = false;
};

// A bus with one device on it; at the end of each test the bus has seen no misuse but what the test
// has taken note of.
class UsbTest : public testing::Test {
  protected:
    // Plugs a device and opens it.
    void start(UsbDeviceOptions options = {}) {
        host.reset();
        device = std::make_shared<VirtualUsbDevice>(options);
        deviceId = bus.plug(kPort, device);
        host = std::make_unique<WireHost>(deviceId, options.startsInBurner);
    }
    void startBurner() { start({.startsInBurner = true}); }
    void reopen(bool claims) {
        host.reset();
        host = std::make_unique<WireHost>(deviceId, claims);
    }
    void TearDown() override {
        host.reset();
        binding.reset();
        EXPECT_THAT(bus.errors(), testing::ElementsAreArray(expectedMisuse));
    }

    static constexpr const char* kPort = "0000:00:14.0-1.1";

    VirtualUsbBus bus;
    std::unique_ptr<LibusbkBinding> binding = std::make_unique<LibusbkBinding>();
    std::shared_ptr<VirtualUsbDevice> device;
    std::string deviceId;
    std::unique_ptr<WireHost> host;
    std::vector<std::string> expectedMisuse;
};

}  // namespace simulator
