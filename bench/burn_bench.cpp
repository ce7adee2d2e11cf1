// The USB engine: CRC-64 beside the one of liblzma, and whole burns against virtual devices that
// answer at once, compared with a bare loop of the same transfers over the same table.
#include <benchmark/benchmark.h>
#include <lzma.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bareburn.h"
#include "measure.h"
#include "simulator/usb/virtualusbbus.h"
#include "simulator/usb/virtualusbdevice.h"
#include "support/temporarydirectory.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "vorlan/burn/burnagent.h"
#include "vorlan/burn/crc64.h"
#include "vorlan/burn/libusbktable.h"

namespace {

constexpr std::uint32_t kImageSize = 8 * 1024 * 1024;  // bytes, where nothing else is told
constexpr std::uint32_t kAddress = 0x10000;
// The CRC of an image is remembered only if its file is not that new.
constexpr auto kUntilSettled = std::chrono::milliseconds(2100);

// A floor of devices that run the burner image and answer at once.
class Floor {
  public:
    explicit Floor(std::size_t devices, std::size_t imageSize = kImageSize)
        : image_(evenImage(imageSize)) {
        hj::setLogLevel(hj::kError + 1);  // or the terminal is what is measured
        file_ = directory_.write("image.bin", std::string(image_.begin(), image_.end()));
        std::this_thread::sleep_for(kUntilSettled);
        for (std::size_t i = 0; i < devices; ++i)
            plug("0-" + std::to_string(i + 1));
    }

    const std::vector<std::uint8_t>& image() const { return image_; }

    bool burn(std::size_t index) const {
        BurnAgent agent(ids_[index]);
        agent.run({{text::widen(file_), kAddress}}, nullptr, CMD_CODE_FLASH_WRITE);
        return agent.is_done();
    }

    // Whether every device holds the image and nobody has broken a rule.
    bool isSound() const {
        return std::all_of(devices_.begin(), devices_.end(), [&](const auto& device) {
            return device->errors().empty() && device->flash().holds(kAddress, image_);
        });
    }

    const std::string& id(std::size_t index) const { return ids_[index]; }

  private:
    void plug(const std::string& port) {
        simulator::UsbDeviceOptions options;
        options.startsInBurner = true;
        devices_.push_back(std::make_shared<simulator::VirtualUsbDevice>(options));
        ids_.push_back(bus_.plug(port, devices_.back()));
    }

    TemporaryDirectory directory_;
    simulator::VirtualUsbBus bus_;
    LibusbkBinding binding_;
    std::vector<std::uint8_t> image_;
    std::string file_;
    std::vector<std::shared_ptr<simulator::VirtualUsbDevice>> devices_;
    std::vector<std::string> ids_;
};

// The transfers of one burn of the image, and nothing else.
class BareLoop {
  public:
    explicit BareLoop(const std::string& id) {
        libusbk::DevicePattern pattern{};
        std::copy(id.begin(), id.end(), pattern.deviceId);
        libusbk::DeviceList* list = nullptr;
        const libusbk::DeviceEntry* entry = nullptr;
        good_ = usb_.LstK_InitEx(&list, 0, &pattern) &&
                usb_.LstK_FindByVidPid(list, kVorlanVendorId, kVorlanProductId, &entry) &&
                usb_.UsbK_Init(&handle_, entry) && usb_.LstK_Free(list) &&
                usb_.UsbK_ClaimInterface(handle_, 0, false) &&
                usb_.OvlK_Init(&pool_, handle_, 4, 0) && usb_.OvlK_Acquire(&slot_, pool_);
    }

    ~BareLoop() {
        usb_.OvlK_Release(slot_);
        usb_.OvlK_Free(pool_);
        usb_.UsbK_ReleaseInterface(handle_, 0, false);
        usb_.UsbK_Free(handle_);
    }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    bool run(const std::vector<std::uint8_t>& image, std::uint64_t crc) {
        return bareBurn(*this, image, kAddress, crc) && good_;
    }

    const Record& answer() const { return answer_; }

    void write(std::uint8_t endpoint, const std::uint8_t* data, std::uint32_t size) {
        std::uint32_t count = 0;
        usb_.OvlK_ReUse(slot_);
        good_ = (usb_.UsbK_WritePipe(handle_, endpoint, data, size, &count, slot_) ||
                 usb_.OvlK_WaitOrCancel(slot_, kTransferTimeoutMs, &count)) &&
                count == size && good_;
    }

    void read(std::uint8_t endpoint) {
        std::uint32_t count = 0;
        usb_.OvlK_ReUse(slot_);
        good_ =
            (usb_.UsbK_ReadPipe(handle_, endpoint, answer_.data(), kRecordSize, &count, slot_) ||
             usb_.OvlK_WaitOrCancel(slot_, kTransferTimeoutMs, &count)) &&
            count == kRecordSize && good_;
    }

  private:
    const LibusbkTable& usb_ = libusbkTable();
    libusbk::UsbHandle* handle_ = nullptr;
    libusbk::OverlappedPool* pool_ = nullptr;
    libusbk::OverlappedSlot* slot_ = nullptr;
    Record answer_{};
    bool good_ = false;
};

void crc64BesideLiblzma(benchmark::State& state) {
    const std::vector<std::uint8_t> image = evenImage(kImageSize);
    std::vector<double> ours;
    std::vector<double> liblzma;
    const auto takeTime = [&](std::vector<double>& times, const auto& crcOf) {
        std::uint64_t crc = 0;
        times.push_back(secondsOf([&] {
            for (std::size_t offset = 0; offset < image.size(); offset += kChunkSize)
                crc = crcOf(crc, image.data() + offset);
        }));
        benchmark::DoNotOptimize(crc);
    };
    for (auto _ : state) {
        takeTime(liblzma, [](std::uint64_t crc, const std::uint8_t* chunk) {
            return lzma_crc64(chunk, kChunkSize, crc);
        });
        takeTime(ours, [](std::uint64_t crc, const std::uint8_t* chunk) {
            return crc64(crc, chunk, kChunkSize);
        });
        state.SetIterationTime(ours.back());
    }
    const double rate = kImageSize / median(ours) / 1e9;
    state.counters["ours_GB_per_s"] = rate;
    state.counters["liblzma_GB_per_s"] = kImageSize / median(liblzma) / 1e9;
    if (rate < 2.0)
        state.SkipWithError("below 2 GB/s");
}
BENCHMARK(crc64BesideLiblzma)->Iterations(101)->UseManualTime()->Unit(benchmark::kMillisecond);

void burnOfOneDevice(benchmark::State& state) {
    constexpr double kMost = 1.05;  // times the bare transfers and the prescribed waits
    static Growth growth;
    const auto size = static_cast<std::size_t>(state.range(0));
    const Floor floor(1, size);
    const std::uint64_t crc = crc64(0, floor.image().data(), floor.image().size());
    std::vector<double> burns;
    std::vector<double> bare;
    bool sound = true;
    for (auto _ : state) {
        bare.push_back(
            secondsOf([&] { sound = BareLoop(floor.id(0)).run(floor.image(), crc) && sound; }));
        burns.push_back(secondsOf([&] { sound = floor.burn(0) && sound; }));
        state.SetIterationTime(burns.back());
    }
    const double ratio = median(burns) / (kFixedWaits + median(bare));
    state.counters["burn_ms"] = 1000 * median(burns);
    state.counters["bare_ms"] = 1000 * median(bare);
    state.counters["ratio"] = ratio;
    if (!sound || !floor.isSound())
        state.SkipWithError("a burn failed");
    else if (ratio > kMost)
        state.SkipWithError(
            ("over 1.05 times the bare transfers: " + std::to_string(ratio)).c_str());
    else
        growth.check(state, static_cast<double>(size), median(burns) - kFixedWaits);
}
BENCHMARK(burnOfOneDevice)
    ->ArgName("bytes")
    ->Arg(64 << 10)
    ->Arg(1 << 20)
    ->Arg(8 << 20)
    ->Arg(64 << 20)
    ->Iterations(15)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// All at once.
void burnOfDevices(benchmark::State& state) {
    static Growth growth;
    const auto devices = static_cast<std::size_t>(state.range(0));
    const Floor floor(devices);
    std::vector<double> processor;
    std::atomic<bool> sound = true;
    for (auto _ : state) {
        const double before = processorTime();
        state.SetIterationTime(secondsOf([&] {
            std::vector<std::jthread> workers;
            for (std::size_t i = 0; i < devices; ++i) {
                workers.emplace_back([&floor, &sound, i] {
                    if (!floor.burn(i))
                        sound = false;
                });
            }
        }));
        processor.push_back(processorTime() - before);
    }
    state.counters["cpu_each_ms"] = 1000 * median(processor) / static_cast<double>(devices);
    if (!sound || !floor.isSound())
        state.SkipWithError("a burn failed");
    else
        growth.check(state, static_cast<double>(devices), median(processor));
}
BENCHMARK(burnOfDevices)
    ->ArgName("devices")
    ->Arg(1)
    ->Arg(4)
    ->Arg(16)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
