// The serial road: its work on bytes, and whole downloads at the pace of a real line, compared with
// the time that the line alone takes. Every benchmark with a budget checks it.
#include <benchmark/benchmark.h>
#include <md5.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "measure.h"
#include "simulator/serial/virtualserialdevice.h"
#include "support/temporarydirectory.h"
#include "vorlan/uart/flash_loader.h"
#include "vorlan/uart/uart_protocol.h"

namespace {

constexpr std::size_t kPacketSize = 4120;  // of a whole flash block
constexpr double kEncodeBudget = 1e9;      // bytes a second

constexpr std::uint32_t kLineRate = 3000000;
constexpr double kBitsPerByte = 10;  // start, 8 data and stop bit
constexpr std::uint32_t kAddress = 0;
constexpr std::uint8_t kEndAction = 2;        // what the program asks for behind each image
constexpr double kDownloadBudget = 1.03;      // times what the line takes, for a large image
constexpr std::size_t kLargeImage = 4 << 20;  // bytes
constexpr double kCoreBudget = 0.5;           // processor time to time, devices included

// Frames packets of which each `range`th byte needs an escape; 0 for none.
void slipEncode(benchmark::State& state) {
    SlipCodec codec;
    std::vector<std::uint8_t> packet(kPacketSize);
    const auto step = static_cast<std::size_t>(state.range(0));
    for (std::size_t i = 0; i < packet.size(); ++i)
        packet[i] = step != 0 && i % step == 0 ? 0xC0 : static_cast<std::uint8_t>(i & 0x7F);
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        const std::uint8_t* output = nullptr;
        std::size_t length = 0;
        benchmark::DoNotOptimize(codec.slip_encode(packet.data(), packet.size(), output, length));
        benchmark::ClobberMemory();
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    const auto bytes = static_cast<double>(state.iterations()) * kPacketSize;
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    if (step == 0 && bytes / time.count() < kEncodeBudget)
        state.SkipWithError("over budget: less than 1 GB/s");
}
// A fixed number of rounds, since the first few say nothing of the speed.
// 128: what an image of evenly spread bytes costs; 1: the worst there can be.
BENCHMARK(slipEncode)->Arg(0)->Arg(128)->Arg(1)->Iterations(100'000);

void checkByte(benchmark::State& state) {
    const std::vector<std::uint8_t> block(kFlashBlockSize, 0x5A);
    for (auto _ : state)
        benchmark::DoNotOptimize(xor_checksum(block.data(), block.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFlashBlockSize));
}
BENCHMARK(checkByte);

// The digest that ends each image, beside the system's program for it.
void md5BesideMd5sum(benchmark::State& state) {
    constexpr std::size_t kSize = 64 << 20;  // bytes
    const std::vector<std::uint8_t> image = evenImage(kSize);
    const TemporaryDirectory directory;
    const std::string file = directory.write("image.bin", std::string(image.begin(), image.end()));
    std::vector<double> ours;
    std::vector<double> md5sum;
    bool sound = true;
    for (auto _ : state) {
        md5sum.push_back(
            secondsOf([&] { sound = runCommand("md5sum " + file + " >/dev/null") && sound; }));
        MD5_CTX digest;
        std::array<std::uint8_t, MD5_DIGEST_LENGTH> value;
        ours.push_back(secondsOf([&] {
            MD5Init(&digest);
            for (std::size_t offset = 0; offset < kSize; offset += kFlashBlockSize)
                MD5Update(&digest, image.data() + offset, kFlashBlockSize);
            MD5Final(value.data(), &digest);
        }));
        benchmark::DoNotOptimize(value);
        state.SetIterationTime(ours.back());
    }
    state.counters["ours_MB_per_s"] = kSize / median(ours) / 1e6;
    state.counters["md5sum_MB_per_s"] = kSize / median(md5sum) / 1e6;
    if (!sound)
        state.SkipWithError("there is no md5sum");
}
BENCHMARK(md5BesideMd5sum)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

// A device that programs in no time, on a port that takes as long as the line it stands for.
class Port {
  public:
    explicit Port(const std::filesystem::path& path)
        : device_(path, {.start = simulator::SerialStart::kProxy, .paced = true}) {
        device_.plugIn();
        context_->port = serial_open(path, context_->baudrate, 0, 0);
    }

    bool connect() {
        return flash_loader_handshake(context_.get()) == kUartOk &&
               flash_loader_change_baudrate(context_.get(), kLineRate) == kUartOk;
    }

    // From the first request for the flash to the last; false if the download failed.
    bool download(const std::string& file) {
        const std::uint64_t before = device_.traffic();
        const auto start = std::chrono::steady_clock::now();
        const int result = flash_loader_download_file(context_.get(), file.c_str(),
                                                      kFlashWindow + kAddress, kEndAction, true);
        time_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        bytes_ = static_cast<double>(device_.traffic() - before);
        return result == kUartOk;
    }

    // How long the line alone takes for that: all bytes of both directions.
    double floor() const { return bytes_ * kBitsPerByte / kLineRate; }

    double ratio() const { return time_ / floor(); }

    // Whether the device holds the image, took each block once and saw no rule broken.
    bool isSound(const std::vector<std::uint8_t>& image) const {
        return device_.errors().empty() && device_.flash().holds(kAddress, image) &&
               device_.count(simulator::SerialFaultPoint::kFlashData) ==
                   image.size() / kFlashBlockSize;
    }

  private:
    simulator::VirtualSerialDevice device_;
    std::unique_ptr<UartContext> context_ = uart_context_create();
    double time_ = 0;   // s
    double bytes_ = 0;  // on the line, both ways together
};

// One download on each of so many ports, all at once.
void downloadAtLinePace(benchmark::State& state) {
    const std::vector<std::uint8_t> image = evenImage(static_cast<std::size_t>(state.range(1)));
    const TemporaryDirectory directory;
    const std::string file = directory.write("image.bin", std::string(image.begin(), image.end()));
    std::vector<double> ratios;
    double line = 0;
    double cores = 0;
    std::atomic<bool> sound = true;
    for (auto _ : state) {
        std::vector<std::unique_ptr<Port>> ports;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            ports.push_back(
                std::make_unique<Port>(directory.path() / ("ttyUSB" + std::to_string(i))));
            sound = ports.back()->connect() && sound;
        }
        const auto start = std::chrono::steady_clock::now();
        const double before = processorTime();
        {
            std::vector<std::jthread> workers;
            workers.reserve(ports.size());
            for (const auto& port : ports) {
                workers.emplace_back([each = port.get(), &file, &sound] {
                    if (!each->download(file))
                        sound = false;
                });
            }
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        cores = std::max(cores, (processorTime() - before) / time.count());
        state.SetIterationTime(time.count());
        for (const auto& port : ports) {
            ratios.push_back(port->ratio());
            line = port->floor();
            sound = port->isSound(image) && sound;
        }
    }
    const auto [best, worst] = std::minmax_element(ratios.begin(), ratios.end());
    state.counters["line_s"] = line;
    state.counters["best_ratio"] = *best;
    state.counters["worst_ratio"] = *worst;
    state.counters["cores"] = cores;
    if (!sound)
        state.SkipWithError("a download failed");
    else if (*best < 1)
        state.SkipWithError("faster than the line: the devices do not keep its pace");
    else if ((image.size() >= kLargeImage && *worst > kDownloadBudget) || cores > kCoreBudget)
        state.SkipWithError(("over budget: " + std::to_string(*worst) +
                             " times what the line takes, " + std::to_string(cores) + " cores")
                                .c_str());
}
BENCHMARK(downloadAtLinePace)
    ->ArgNames({"ports", "bytes"})
    ->Args({1, 64 << 10})
    ->Args({1, 1 << 20})
    ->Args({1, 8 << 20})
    ->Args({1, 4 << 20})
    ->Args({4, 4 << 20})
    ->Args({16, 4 << 20})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
