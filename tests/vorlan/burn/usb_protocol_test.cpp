// What a burn of a size that tests can afford does not show.
#include "vorlan/burn/usb_protocol.h"

#include <gtest/gtest.h>

#include "vorlan/burn/burn_limits.h"
#include "vorlan/burn/burnprogress.h"

TEST(UsbProtocol, HoldsAtItsLimits) {
    // Flags never spill into the code.
    EXPECT_EQ(commandCodeOf(encode({.cmdcode = CMD_CODE_SYNC, .flags = ~0U}).data()),
              CMD_CODE_SYNC);
    for (const std::uint8_t code : {std::uint8_t{8}, std::uint8_t{255}}) {
        EXPECT_STREQ(commandName(code), "INVALID_CODE");
        EXPECT_STREQ(commandDescription(code), "invalid code");
    }
    EXPECT_EQ(writeResultTimeout(0xFFFFFFFF, true), 122'880'000U);
    BurnProgress progress(0xFFFFFFFF);
    progress.dataSent(0x80000000);
    EXPECT_EQ(progress.due(), 23U);
}
