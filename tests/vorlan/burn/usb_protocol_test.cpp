#include "vorlan/burn/usb_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vorlan/burn/burnprogress.h"

using testing::ElementsAre;

TEST(UsbRecords, CommandsOnTheWire) {
    EXPECT_THAT(encode({.cmdcode = CMD_CODE_SYNC}),
                ElementsAre(0, 0, 0, 0x08, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(encode({.cmdcode = CMD_CODE_GET_RESULT}),
                ElementsAre(0, 0, 0, 0x0A, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(encode({.cmdcode = CMD_CODE_FLASH_WRITE,
                        .flags = BURN_FLAG_CRC64,
                        .address = 0x100000,
                        .size = 5000}),
                ElementsAre(0x08, 0, 0, 0x02, 0, 0, 0x10, 0, 0x88, 0x13, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(
        encodeSetCrc64(BURN_FLAG_CRC64, 0xE9C6D914C4B8D9CA),
        ElementsAre(0x08, 0, 0, 0x0C, 0xCA, 0xD9, 0xB8, 0xC4, 0x14, 0xD9, 0xC6, 0xE9, 0, 0, 0, 0));
    // Flags never spill into the code.
    EXPECT_EQ(commandCodeOf(encode({.cmdcode = CMD_CODE_SYNC, .flags = ~0U}).data()),
              CMD_CODE_SYNC);
}

TEST(UsbRecords, ResponseCodeIsTheUpperSevenBits) {
    Record record{};
    record[3] = 0x03;  // bit 24 belongs to the part that is not read
    record[4] = 6;
    record[5] = 255;
    const USB_RESP_COMMON response = decodeResponse(record);
    EXPECT_EQ(response.respcode, RESP_CODE_ERROR);
    EXPECT_EQ(response.cmdorg, 6);
    EXPECT_EQ(response.errdesc_len, 255);
}

TEST(UsbRecords, CodesOutOfRangeHaveATextToo) {
    EXPECT_STREQ(commandName(CMD_CODE_SHOW_DONE), "SHOW_DONE(7)");
    EXPECT_STREQ(commandDescription(CMD_CODE_SHOW_DONE), "7: show that burning is done");
    for (const std::uint8_t code : {std::uint8_t{8}, std::uint8_t{255}}) {
        EXPECT_STREQ(commandName(code), "INVALID_CODE");
        EXPECT_STREQ(commandDescription(code), "invalid code");
    }
}

TEST(BurnProgress, DataReaches45AndWaitingAtMost95) {
    BurnProgress progress(3 * 4096);
    EXPECT_EQ(progress.due(), std::nullopt);
    progress.dataSent(4096);
    EXPECT_EQ(progress.due(), 15U);
    EXPECT_EQ(progress.due(), std::nullopt);
    // Half a percent is not enough for a report; one percent is.
    progress.waited();
    EXPECT_EQ(progress.due(), std::nullopt);
    progress.waited();
    EXPECT_EQ(progress.due(), 16U);
    progress.dataSent(3 * 4096);
    EXPECT_EQ(progress.due(), 46U);
    for (int turn = 0; turn < 1000; ++turn)
        progress.waited();
    EXPECT_EQ(progress.due(), 95U);
}

TEST(BurnProgress, LargeImagesDoNotOverflow) {
    BurnProgress progress(0xFFFFFFFF);
    progress.dataSent(0x80000000);
    EXPECT_EQ(progress.due(), 23U);
}
