// A burn through everything that stands between the agent and the kernel, beside a loop of bare
// transfers over the same libusb. The kernel's bus is made up, the transfers are real ones.
#include <benchmark/benchmark.h>
#include <libusb.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bareburn.h"
#include "measure.h"
#include "simulator/kernelusb/mockusbbus.h"
#include "simulator/kernelusb/wireddevice.h"
#include "support/temporarydirectory.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "vorlan/burn/burnagent.h"
#include "vorlan/burn/crc64.h"
#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/usb_protocol.h"

namespace {

constexpr std::uint32_t kImageSize = 1 << 20;  // bytes
constexpr std::uint32_t kAddress = 0x10000;
constexpr double kMost = 1.1;  // times the bare transfers and the waits

// The transfers of one burn of the image by libusb's own synchronous calls.
class BareLoop {
  public:
    BareLoop() {
        good_ = libusb_init(&context_) == LIBUSB_SUCCESS;
        handle_ = libusb_open_device_with_vid_pid(context_, kVorlanVendorId, kVorlanProductId);
        good_ = good_ && handle_ != nullptr &&
                libusb_claim_interface(handle_, kVorlanInterface) == LIBUSB_SUCCESS;
    }
    ~BareLoop() {
        if (handle_ != nullptr) {
            libusb_release_interface(handle_, kVorlanInterface);
            libusb_close(handle_);
        }
        libusb_exit(context_);
    }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    bool run(const std::vector<std::uint8_t>& image, std::uint64_t crc) {
        return bareBurn(*this, image, kAddress, crc) && good_;
    }

    const Record& answer() const { return answer_; }

    void write(std::uint8_t endpoint, const std::uint8_t* bytes, std::uint32_t size) {
        // libusb does not change what it sends.
        transfer(endpoint, const_cast<std::uint8_t*>(bytes), size);
    }
    void read(std::uint8_t endpoint) { transfer(endpoint, answer_.data(), kRecordSize); }

  private:
    void transfer(std::uint8_t endpoint, std::uint8_t* bytes, std::uint32_t size) {
        int count = 0;
        good_ = good_ &&
                libusb_bulk_transfer(handle_, endpoint, bytes, static_cast<int>(size), &count,
                                     kTransferTimeoutMs) == LIBUSB_SUCCESS &&
                count == static_cast<int>(size);
    }

    libusb_context* context_ = nullptr;
    libusb_device_handle* handle_ = nullptr;
    Record answer_{};
    bool good_ = false;
};

void burnBesideBareLibusb(benchmark::State& state) {
    hj::setLogLevel(hj::kError + 1);  // or the terminal is what is measured
    const std::vector<std::uint8_t> image = evenImage(kImageSize);
    const std::uint64_t crc = crc64(0, image.data(), image.size());
    const TemporaryDirectory directory;
    const std::string file = directory.write("image.bin", std::string(image.begin(), image.end()));
    MockUsbBus bus;
    WiredDevice device(std::numeric_limits<int>::max(), {.startsInBurner = true});
    bus.plugIn("2.4", [&](MockUsbDevice& wire) { device.connect(wire); });
    const LibusbkBinding binding;
    const std::string id = R"(USB\VID_1234&PID_5678\0000:00:14.0-2.4)";
    std::vector<double> burns;
    std::vector<double> bare;
    bool sound = LibusbkBinding::isBound();
    for (auto _ : state) {
        {
            BareLoop loop;
            bare.push_back(secondsOf([&] { sound = loop.run(image, crc) && sound; }));
        }
        burns.push_back(secondsOf([&] {
            BurnAgent agent(id);
            agent.run({{text::widen(file), kAddress}}, nullptr, CMD_CODE_FLASH_WRITE);
            sound = agent.is_done() && sound;
        }));
        state.SetIterationTime(burns.back());
    }
    const double ratio = median(burns) / (kFixedWaits + median(bare));
    state.counters["burn_ms"] = 1000 * median(burns);
    state.counters["bare_ms"] = 1000 * median(bare);
    state.counters["ratio"] = ratio;
    if (!sound || !device.chip.errors().empty() || !device.chip.flash().holds(kAddress, image))
        state.SkipWithError("a burn failed");
    else if (ratio > kMost)
        state.SkipWithError(
            ("over 1.1 times the bare transfers: " + std::to_string(ratio)).c_str());
}
BENCHMARK(burnBesideBareLibusb)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
