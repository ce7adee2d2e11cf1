// A bare host on a virtual serial device's port: it sends what a test tells it, right or wrong.
#pragma once

#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "simulator/serialwire.h"
#include "simulator/slipreader.h"

namespace simulator {

using ByteVector = std::vector<std::uint8_t>;

inline void putWord(ByteVector& bytes, std::uint32_t word) {
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<std::uint8_t>(word >> shift));
}

inline ByteVector request(std::uint8_t command, const ByteVector& data, std::uint32_t check = 0) {
    ByteVector packet{0, command, static_cast<std::uint8_t>(data.size()),
                      static_cast<std::uint8_t>(data.size() >> 8)};
    putWord(packet, check);
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

inline ByteVector words(std::uint8_t command, std::initializer_list<std::uint32_t> values) {
    ByteVector data;
    for (const std::uint32_t value : values)
        putWord(data, value);
    return request(command, data);
}

inline ByteVector block(std::uint8_t command, std::uint32_t sequence, const ByteVector& bytes,
                        std::uint32_t mark = 0) {
    ByteVector data;
    putWord(data, static_cast<std::uint32_t>(bytes.size()));
    putWord(data, sequence);
    putWord(data, mark);
    putWord(data, mark);
    data.insert(data.end(), bytes.begin(), bytes.end());
    std::uint32_t check = 0xEF;
    for (const std::uint8_t byte : bytes)
        check ^= byte;
    return request(command, data, check);
}

inline ByteVector syncRequest() {
    ByteVector data(36, 0x55);
    data[0] = data[1] = 0x07;
    data[2] = 0x12;
    data[3] = 0x20;
    return request(kUartSync, data);
}

inline ByteVector begin(std::uint8_t command, std::uint32_t size, std::uint32_t address) {
    const std::uint32_t unit = command == kUartRamBegin ? 2048 : 4096;
    return words(command, {size, (size + unit - 1) / unit, unit, address});
}

// Bytes that need escapes now and then.
inline ByteVector pattern(std::size_t size) {
    ByteVector bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
    return bytes;
}

class SerialHost {
  public:
    explicit SerialHost(const std::string& path, std::uint32_t rate = kFirstRate)
        : port_(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
        set(rate, 0);
    }
    ~SerialHost() { ::close(port_); }
    SerialHost(const SerialHost&) = delete;
    SerialHost& operator=(const SerialHost&) = delete;

    void set(std::uint32_t rate, tcflag_t moreFlags) {
        termios2 settings{};
        ioctl(port_, TCGETS2, &settings);
        settings.c_iflag = 0;
        settings.c_oflag = 0;
        settings.c_lflag = 0;
        settings.c_cflag = BOTHER | CS8 | CREAD | CLOCAL | moreFlags;
        settings.c_ispeed = settings.c_ospeed = rate;
        ioctl(port_, TCSETS2, &settings);
    }

    void write(Bytes bytes) {
        while (!bytes.empty()) {
            const ssize_t size = ::write(port_, bytes.data(), bytes.size());
            if (size > 0)
                bytes = bytes.subspan(static_cast<std::size_t>(size));
            else if (!wait(POLLOUT, 2000))
                return;
        }
    }
    void write(const std::string& bytes) { write(ByteVector(bytes.begin(), bytes.end())); }
    void send(const ByteVector& packet) { write(slipFrame(packet)); }

    // What comes up to a gap of 10 ms; empty if nothing does within that time, or the line is down.
    ByteVector readRaw(int limitMs) {
        ByteVector all;
        std::array<std::uint8_t, 256> piece;
        while (wait(POLLIN, all.empty() ? limitMs : 10)) {
            const ssize_t size = ::read(port_, piece.data(), piece.size());
            if (size <= 0) {
                hungUp = true;
                break;
            }
            all.insert(all.end(), piece.begin(), piece.begin() + size);
        }
        return all;
    }

    // The next frame's plain bytes.
    ByteVector receive(int limitMs = 2000) {
        SlipReader reader;
        std::uint8_t byte = 0;
        while (wait(POLLIN, limitMs)) {
            if (::read(port_, &byte, 1) != 1) {
                hungUp = true;
                break;
            }
            if (reader.take(byte) == SlipReader::Event::Frame)
                return reader.frame();
        }
        return {};
    }

    // "ok", or why not.
    std::string ask(const ByteVector& packet, int limitMs = 2000) {
        send(packet);
        last = receive(limitMs);
        if (last.size() < 10)
            return hungUp ? "hung up" : "silent";
        if (last[0] != 1 || last[1] != packet[1])
            return "another's answer";
        return last[8] == 0 && last[9] == 0 ? "ok" : "refused";
    }

    ByteVector last;
    bool hungUp = false;

  private:
    bool wait(short event, int limitMs) {
        pollfd file{port_, event, 0};
        return poll(&file, 1, limitMs) > 0;
    }

    int port_;
};

}  // namespace simulator
