#include "vorlan/burn/usbdriver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

#include "simulator/usb/virtualusbbus.h"
#include "support/helpers.h"
#include "vorlan/burn/libusbktable.h"

using simulator::UsbOperation;
using simulator::VirtualUsbBus;
using testing::HasSubstr;

TEST(UsbDriver, WorksWhereDevicesAreListedAndTheDriverIsInstalled) {
    const VirtualUsbBus bus;
    EXPECT_TRUE(usbDriverWorks());
    EXPECT_FALSE(LibusbkBinding::isBound());
    {
        const LibusbkBinding burning;
        EXPECT_TRUE(usbDriverWorks());
        EXPECT_TRUE(LibusbkBinding::isBound());
    }
    EXPECT_THAT(bus.errors(), testing::IsEmpty());
}

TEST(UsbDriver, EachFailureIsToldAndOverWithItsCause) {
    struct Row {
        UsbOperation operation;
        std::uint32_t code;
        const char* told;
    };
    VirtualUsbBus bus;
    for (const Row& row : {
             Row{UsbOperation::kStartup, libusbk::kGeneralFailure, "libusbK is not bound\n"},
             Row{UsbOperation::kList, libusbk::kNotEnoughMemory,
                 "devices cannot be listed (ErrorCode: 00000008h)\n"},
             Row{UsbOperation::kDriverCheck, libusbk::kAccessDenied,
                 "not installed (ErrorCode: 00000005h)\n"},
         }) {
        SCOPED_TRACE(row.told);
        bus.fail(row.operation, row.code);
        const Output output = outputOf([] { EXPECT_FALSE(usbDriverWorks()); });
        EXPECT_THAT(output.traced, HasSubstr(row.told));
        EXPECT_FALSE(LibusbkBinding::isBound());
        EXPECT_TRUE(usbDriverWorks());
    }
    EXPECT_THAT(bus.errors(), testing::IsEmpty());
}
