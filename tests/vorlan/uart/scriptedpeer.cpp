#include "scriptedpeer.h"

#include <gtest/gtest.h>
#include <md5.h>

#include <utility>

#include "simulator/serial/slipreader.h"

using namespace std::chrono_literals;

namespace {

std::string framed(const std::string& packet) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(packet.data());
    const auto frame = simulator::slipFrame({bytes, packet.size()});
    return {frame.begin(), frame.end()};
}

std::string unframed(const std::string& frame) {
    simulator::SlipReader reader;
    for (const char byte : frame)
        if (reader.take(static_cast<std::uint8_t>(byte)) == simulator::SlipReader::Event::kFrame)
            return {reader.frame().begin(), reader.frame().end()};
    return {};
}

}  // namespace

std::uint32_t SeenRequest::word(std::size_t index) const {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= std::uint32_t{static_cast<std::uint8_t>(packet.at(8 + index * 4 + i))} << (8 * i);
    return value;
}

// The program's port: the real one, with the peer at its end.
class ScriptedPeer::Port final : public platform::SerialDevice {
  public:
    Port(ScriptedPeer& peer, SerialPort real) : peer_(peer), real_(std::move(real)) {
        timeouts_.readConstant = 1000ms;
    }

    bool fetchSettings() override { return real_->fetchSettings(); }
    const std::string& path() const override { return real_->path(); }
    bool setLine(const platform::SerialLine& line) override { return real_->setLine(line); }
    std::uint32_t offeredRate() const override { return real_->offeredRate(); }
    bool setTimeouts(const platform::SerialTimeouts& timeouts) override {
        timeouts_ = timeouts;
        return real_->setTimeouts(timeouts);
    }

    int write(const std::uint8_t* bytes, int size) override {
        const int written = real_->write(bytes, size);
        frame_ += peer_.terminal_.receive(static_cast<std::size_t>(size));
        SeenRequest request;
        request.packet = unframed(frame_);
        if (request.packet.empty())
            return written;  // its end is still to come
        request.frame = std::exchange(frame_, {});
        request.command = static_cast<std::uint8_t>(request.packet.at(1));
        request.rate = peer_.terminal_.rate();
        request.silentRead = timeouts_.readConstant + 64 * timeouts_.readPerByte;
        peer_.requests_.push_back(request);
        peer_.onRequest(request);
        const std::string answer = peer_.answerFor(request);
        answered_ = !answer.empty();
        peer_.terminal_.send(answer);
        return written;
    }

    int readUntil(std::uint8_t* buffer, int wanted, const IsWhole& isWhole) override {
        if (answered_)
            return real_->readUntil(buffer, wanted, isWhole);
        EXPECT_TRUE(real_->setTimeouts({.readGap = timeouts_.readGap, .readConstant = 1ms}));
        const int count = real_->readUntil(buffer, wanted, isWhole);
        EXPECT_TRUE(real_->setTimeouts(timeouts_));
        return count;
    }

    void finishRead() override { real_->finishRead(); }

  private:
    ScriptedPeer& peer_;
    SerialPort real_;
    std::string frame_;  // of the request that has begun to come
    platform::SerialTimeouts timeouts_;
    bool answered_ = false;
};

ScriptedPeer::ScriptedPeer(UartContext& context) {
    uart_context_open_port(&context, terminal_.portName());
    EXPECT_NE(context.port, nullptr);
    context.port = std::make_unique<Port>(*this, std::move(context.port));
}

void ScriptedPeer::answer(UartCommand command, const std::string& answer, int count) {
    script_[command].insert(script_[command].end(), static_cast<std::size_t>(count), answer);
}

std::string ScriptedPeer::acknowledgement(int command, char data0, char data1) const {
    std::string packet{1, static_cast<char>(command), 2, 0, 0, 0, 0, 0, data0, data1};
    if (command == UART_MD5) {
        Md5Digest digest;
        MD5_CTX state;
        MD5Init(&state);
        MD5Update(&state, reinterpret_cast<const std::uint8_t*>(image_.data()), image_.size());
        MD5Final(digest.data(), &state);
        packet.append(digest.begin(), digest.end());
    }
    return framed(packet);
}

std::vector<SeenRequest> ScriptedPeer::requests(UartCommand command) const {
    std::vector<SeenRequest> found;
    for (const SeenRequest& request : requests_)
        if (request.command == command)
            found.push_back(request);
    return found;
}

std::string ScriptedPeer::commands() const {
    std::string text;
    for (const SeenRequest& request : requests_)
        text += (text.empty() ? "" : " ") + std::to_string(request.command);
    return text;
}

std::string ScriptedPeer::answerFor(const SeenRequest& request) {
    if (requests_.size() <= asleep_ || (rate_ != 0 && request.rate != rate_))
        return {};
    std::deque<std::string>& script = script_[request.command];
    if (!script.empty()) {
        std::string answer = std::move(script.front());
        script.pop_front();
        return answer;
    }
    if (request.command == UART_FLASH_BEGIN || request.command == UART_RAM_BEGIN)
        image_.clear();
    if (request.command == UART_FLASH_DATA || request.command == UART_RAM_DATA)
        image_ += request.data().substr(16);
    return acknowledgement(request.command);
}
