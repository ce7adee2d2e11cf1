// The serial road's work on bytes. Every benchmark with a budget checks it.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "vorlan/uart/protocol/header_configure.h"

namespace {

constexpr std::size_t kPacketSize = 4120;  // of a whole flash block
constexpr double kEncodeBudget = 1e9;      // bytes a second

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

}  // namespace
