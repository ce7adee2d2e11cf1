#include "vorlan/uart/uart_protocol.h"

#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

#include "scriptedpeer.h"
#include "support/documentedbytes.h"
#include "support/pseudoterminal.h"
#include "utils/interruption.h"

using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

const std::uint8_t* bytesOf(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

class UartPacketTest : public testing::Test {
  protected:
    std::unique_ptr<UartContext> context_ = uart_context_create();
    ScriptedPeer peer_{*context_};
};

}  // namespace

TEST_F(UartPacketTest, GoesOverTheWireAsTheDocumentTells) {
    auto told = documentedBytes("uart-");
    std::size_t checked = 0;
    const auto sends = [&](const char* name, int result) {
        EXPECT_EQ(result, kUartOk) << name;
        EXPECT_EQ(peer_.requests().back().frame, told[name]) << name;
        ++checked;
    };
    UartContext* const context = context_.get();
    peer_.answer(UART_SYNC, told["uart-sync-answer"]);
    sends("uart-sync", send_sync(context));
    sends("uart-ram-begin", send_ram_begin(context, 0, 3));
    sends("uart-ram-data", send_ram_data(context, bytesOf("abc"), 3));
    sends("uart-ram-end", send_ram_end(context, 0, 0));
    sends("uart-change-baudrate", send_change_baudrate(context, 3'000'000, 115'200));
    sends("uart-flash-begin", send_flash_begin(context, 0x100000, 3));
    peer_.refuse(UART_FLASH_DATA, 1);
    EXPECT_EQ(send_flash_data(context, bytesOf("abc"), 3), kUartRefused);
    EXPECT_EQ(peer_.requests().back().frame, told["uart-flash-data"]);
    sends("uart-flash-data-again", send_flash_data(context, bytesOf("abc"), 3));
    sends("uart-md5", send_md5(context, 0x80100000, 3));
    sends("uart-flash-end", send_flash_end(context, 2));
    EXPECT_EQ(told.size(), checked + 2);
}

TEST_F(UartPacketTest, EveryCommandsData) {
    UartContext* const context = context_.get();
    const auto last = [this] { return peer_.requests().back().packet; };
    const auto header = [](char command, char size) {
        return "\0"s + command + size + "\0\0\0\0\0"s;
    };

    EXPECT_EQ(send_ram_begin(context, 0x12345678, 2049), kUartOk);
    EXPECT_EQ(last(), header(5, 16) + "\x01\x08\0\0\x02\0\0\0\0\x08\0\0\x78\x56\x34\x12"s);
    EXPECT_EQ(send_ram_end(context, 1, 2), kUartOk);
    EXPECT_EQ(last(), header(6, 8) + "\x01\0\0\0\x02\0\0\0"s);
    EXPECT_EQ(send_flash_begin(context, 0x10000, 4096), kUartOk);
    EXPECT_EQ(last(), header(2, 16) + "\0\x10\0\0\x01\0\0\0\0\x10\0\0\0\0\x01\0"s);
    EXPECT_EQ(context->flash.blocks, 1U);
    EXPECT_EQ(send_flash_begin(context, 0, 4097), kUartOk);
    EXPECT_EQ(context->flash.blocks, 2U);
    EXPECT_EQ(send_flash_begin(context, 0, 0), kUartOk);
    EXPECT_EQ(context->flash.blocks, 0x100000U);
    EXPECT_EQ(send_flash_end(context, 2), kUartOk);
    EXPECT_EQ(last(), header(4, 4) + "\x02\0\0\0"s);
    EXPECT_EQ(send_change_baudrate(context, 3000000, 115200), kUartOk);
    EXPECT_EQ(last(), header(15, 8) + "\xC0\xC6\x2D\0\0\xC2\x01\0"s);
    EXPECT_EQ(send_md5(context, 0x80010000, 4097), kUartOk);
    EXPECT_EQ(last(), header(19, 16) + "\0\0\x01\x80\x01\x10\0\0\0\0\0\0\0\0\0\0"s);

    // The largest packet, all escapes.
    const std::string block(4096, '\xC0');
    EXPECT_EQ(send_flash_data(context, bytesOf(block), 4096), kUartOk);
    EXPECT_EQ(last().substr(0, 12), "\0\x03\x10\x10\xEF\0\0\0\0\x10\0\0"s);
    EXPECT_EQ(peer_.requests().back().data().substr(16), block);

    EXPECT_EQ(xor_checksum(bytesOf("abc"), 3), 0x8F);
    EXPECT_EQ(xor_checksum(bytesOf("abc"), 0), 0);
    EXPECT_EQ(xor_checksum(nullptr, 3), 0);
}

TEST_F(UartPacketTest, AnAnswerAcknowledgesOnlyIfAllOfItDoes) {
    const std::string rest = "\x77\x77\x77\x77\x77\x77"s;  // size and value do not matter
    const std::string good = "\xC0\x01\x08"s + rest + "\0\0\xC0"s;
    for (const auto& [answer, result] : std::initializer_list<std::pair<std::string, UartResult>>{
             {"noise\x01\xDB"s + good, kUartOk},
             {"\xC0\x01\x08"s + rest + "\x01\0\xC0"s, kUartRefused},
             {"\xC0\x01\x08"s + rest + "\0\x01\xC0"s, kUartRefused},
             {"\xC0\0\x08"s + rest + "\0\0\xC0"s, kUartRefused},
             {"\xC0\x01\x07"s + rest + "\0\0\xC0"s, kUartRefused},
             {"\xC0\x01\x08\xDBx\xC0", kUartNoAnswer},
             {"", kUartNoAnswer},
             // An empty frame is judged by what an earlier one has left.
             {good, kUartOk},
             {"\xC0\xC0", kUartOk},
             // An answer cut in two is judged with the next exchange.
             {good.substr(0, 5), kUartNoAnswer},
             {good.substr(5), kUartOk}}) {
        peer_.answer(UART_SYNC, answer);
        EXPECT_EQ(send_sync(context_.get()), result) << testing::PrintToString(answer);
    }
}

TEST_F(UartPacketTest, ALateAnswerIsTakenForThatOfTheNextCommand) {
    // What a read of 64 bytes has left over.
    peer_.answer(UART_SYNC, std::string(64, 'n') + peer_.acknowledgement(UART_SYNC));
    EXPECT_EQ(send_sync(context_.get()), kUartNoAnswer);
    EXPECT_EQ(send_ram_end(context_.get(), 0, 0), kUartRefused);
    EXPECT_EQ(send_ram_end(context_.get(), 0, 0), kUartOk);
}

TEST_F(UartPacketTest, AResentBlockIsMarkedAndKeepsItsNumber) {
    peer_.refuse(UART_FLASH_DATA, 1);
    peer_.keepSilent(UART_FLASH_DATA, 1);
    UartContext* const context = context_.get();
    EXPECT_EQ(send_flash_data(context, bytesOf("abc"), 3), kUartRefused);
    EXPECT_EQ(send_flash_data(context, bytesOf("abc"), 3), kUartNoAnswer);
    // The ROM loader's blocks know no mark.
    EXPECT_EQ(send_ram_data(context, bytesOf("abc"), 3), kUartOk);
    EXPECT_EQ(peer_.requests().back().word(2), 0U);
    EXPECT_EQ(send_flash_data(context, bytesOf("abc"), 3), kUartOk);
    EXPECT_EQ(send_flash_data(context, bytesOf("de"), 2), kUartOk);
    const auto blocks = peer_.requests(UART_FLASH_DATA);
    const std::uint32_t expected[][2] = {{0, 0}, {0, 0x55555555}, {0, 0x55555555}, {1, 0}};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(blocks[i].word(1), expected[i][0]) << i;
        EXPECT_EQ(blocks[i].word(2), expected[i][1]) << i;
        EXPECT_EQ(blocks[i].word(3), expected[i][1]) << i;
    }
    EXPECT_EQ(context->flash.sent, 5U);
    // A download that was given up leaves the mark to the next one's first block.
    peer_.keepSilent(UART_FLASH_DATA, 1);
    EXPECT_EQ(send_flash_data(context, bytesOf("abc"), 3), kUartNoAnswer);
    EXPECT_EQ(send_flash_begin(context, 0, 3), kUartOk);
    EXPECT_EQ(send_flash_data(context, bytesOf("abc"), 3), kUartOk);
    EXPECT_EQ(peer_.requests().back().word(1), 0U);
    EXPECT_EQ(peer_.requests().back().word(2), 0x55555555U);
}

TEST_F(UartPacketTest, TheDigestIsTakenEvenFromARefusal) {
    std::string answer = peer_.refusal(UART_MD5);
    answer.replace(11, 16, "0123456789abcdef");
    peer_.answer(UART_MD5, answer);
    EXPECT_EQ(send_md5(context_.get(), 0, 0), kUartRefused);
    EXPECT_EQ(std::string(context_->md5.begin(), context_->md5.end()), "0123456789abcdef");
}

TEST(UartContext, TheProgramsEndCutsAnExchangeShort) {
    PseudoTerminal terminal;
    std::stop_source programEnds;
    const interruption::Scope scope(programEnds.get_token());
    const auto context = uart_context_create();
    uart_context_open_port(context.get(), terminal.portName());
    ASSERT_NE(context->port, nullptr);
    EXPECT_EQ(serial_set_timeouts(context->port, 115200, 60000), 1);
    std::thread end([&] {
        terminal.receive(46);  // the request is on the wire
        programEnds.request_stop();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(send_sync(context.get()), kUartNoAnswer);
    end.join();
    EXPECT_EQ(send_sync(context.get()), kUartNoAnswer);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
    EXPECT_TRUE(terminal.isQuiet());
}

TEST(UartContext, APortThatIsNotThereShowsInTheFirstExchange) {
    const auto context = uart_context_create();
    testing::internal::CaptureStderr();
    uart_context_open_port(context.get(), L"none");
    EXPECT_EQ(send_sync(context.get()), kUartNoAnswer);
    const std::string trace = testing::internal::GetCapturedStderr();
    EXPECT_NE(trace.find("WriteFile failed with error 9:"), std::string::npos) << trace;
    EXPECT_EQ(trace.find("ReadFile"), std::string::npos) << trace;
    EXPECT_NE(trace.find("Unpack receive package trigger error\n"), std::string::npos) << trace;
    EXPECT_TRUE(uart_context_stopped(nullptr));
    uart_context_destroy(nullptr);
}
