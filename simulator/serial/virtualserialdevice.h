// A Vorlan device on a serial port: the ROM loader, then the flash proxy, with a flash behind it.
// It sits on the master side of a pty, hears only what comes at its own rate, and can take as long
// as a real line. Strict: what the host does wrong is recorded.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "simulator/errorlist.h"
#include "simulator/flash.h"
#include "simulator/serial/linepace.h"
#include "simulator/serial/ptyline.h"
#include "simulator/serial/serialfault.h"
#include "simulator/serial/serialflashproxy.h"
#include "simulator/serial/serialromloader.h"
#include "simulator/serial/serialwire.h"
#include "simulator/serial/slipreader.h"

namespace simulator {

// HandOver: the flash proxy starts and hears nothing yet.
enum class SerialStage { kRomLoader, kHandOver, kProxy };

// What a device is when it gets power; the latter two are for tests that need no download, and no
// SYNC either.
enum class SerialStart { kRomLoader, kProxy, kProxyInSync };

struct SerialDeviceOptions {
    SerialStart start = SerialStart::kRomLoader;
    bool paced = false;          // bytes take their time on the line, both ways
    bool requiresDigest = true;  // an image that ends without MD5 is a breach
    std::uint32_t proxyRate = kFirstRate;
    std::chrono::microseconds romStartUp{};    // after power-on, while nothing is heard
    std::chrono::microseconds proxyStartUp{};  // after RAM_END, while nothing is heard
    std::chrono::microseconds eraseTime{};     // before FLASH_BEGIN is answered
    std::chrono::microseconds blockTime{};     // before FLASH_DATA is answered
    std::chrono::microseconds digestTime{};    // before MD5 is answered
    // A host that has got no answer waits at least this long before it asks again.
    std::chrono::milliseconds patience{300};
};

// All operations may be called from any thread. A port list, real or scripted, is told portName()
// and portPath() when the device is plugged in, and that they are gone when it is not.
class VirtualSerialDevice {
  public:
    // `port` is the path that the host opens, a link that comes and goes with the device. It does
    // so with plugIn() for the first time.
    explicit VirtualSerialDevice(std::filesystem::path port, SerialDeviceOptions options = {});
    ~VirtualSerialDevice();
    VirtualSerialDevice(const VirtualSerialDevice&) = delete;
    VirtualSerialDevice& operator=(const VirtualSerialDevice&) = delete;

    // Power-on loses everything but the flash, the scripted faults and the records. A device that
    // is plugged in already goes first. Throws std::system_error if there is no pty to be had.
    void plugIn();
    // Returns when the host has seen the line hang up. Does nothing to a device that has left.
    void unplug();
    bool isPluggedIn() const;

    std::string portPath() const { return port_.string(); }
    std::string portName() const { return port_.filename().string(); }

    void addFault(SerialFaultRule rule);
    // The device leaves as soon as so many bytes have passed since power-on, both ways together.
    void unplugAtByte(std::uint64_t count);

    SerialStage stage();
    // The rate at which it hears and speaks.
    std::uint32_t rate() const;
    const Flash& flash() const { return flash_; }
    std::vector<std::string> errors() const { return errors_.texts(); }
    // The image that the ROM loader has got, as far as it has come.
    std::vector<std::uint8_t> downloadedProxy() const;
    // How many requests of this kind came, repeats and refused ones included.
    std::uint32_t count(SerialFaultPoint point) const;
    // Bytes that have passed since power-on, both ways together.
    std::uint64_t traffic() const;

  private:
    // A frame on its way from the host.
    struct Incoming {
        std::vector<std::uint8_t> bytes;
        std::uint32_t rate;  // of the host
        Clock::time_point at;
    };
    // What happens when bytes have been sent.
    enum class After { kNothing, kProxyStarts, kRateChanges, kLeaves };
    // Bytes on their way to the host.
    struct Outgoing {
        std::vector<std::uint8_t> bytes;
        Clock::time_point at;
        bool acknowledges = false;  // the host has got a good answer then
        After after = After::kNothing;
    };

    void run();
    // Does what is due; when there is more to do.
    Clock::time_point step(Clock::time_point now);
    void powerOn();
    void advance(Clock::time_point now);
    void hostOpens();
    void receive(Clock::time_point now);
    void hear(Bytes bytes, std::uint32_t hostRate, Clock::time_point from);
    void hearAtWrongRate(Clock::time_point now);
    void note(SlipReader::Event event);
    void arrived(Incoming frame);
    void serve(const Incoming& frame);
    std::optional<SerialFaultPoint> pointOf(std::uint8_t command) const;
    SerialAnswer judge(const SerialRequest& request, Bytes frame, const SerialFault& fault);
    void checkResendMarks(const SerialRequest& request, bool again);
    std::chrono::microseconds timeFor(const SerialRequest& request) const;
    void answer(const SerialRequest& request, const SerialAnswer& plain, const SerialFault& fault,
                Clock::time_point arrivedAt);
    void shape(std::vector<std::uint8_t> packet, bool good, const SerialFault& fault,
               Clock::time_point readyAt, After after);
    void queue(std::vector<std::uint8_t> bytes, Clock::time_point readyAt,
               bool acknowledges = false, After after = After::kNothing);
    void send(const Outgoing& piece, Clock::time_point now);
    std::uint64_t bytesUntilUnplugged() const;

    const std::filesystem::path port_;
    const SerialDeviceOptions options_;
    Flash flash_;
    ErrorList errors_;

    std::mutex plugLock_;  // one plugs at a time; taken before lock_
    std::unique_ptr<PtyLine> line_;
    std::thread thread_;

    mutable std::mutex lock_;  // guards all below
    SerialRomLoader rom_;
    SerialFlashProxy proxy_;
    FaultScript<SerialFaultPoint, SerialFault, kSerialFaultPoints> faults_;
    bool plugged_ = false;
    bool leaving_ = false;
    Clock::time_point leavesAt_;
    SerialStage stage_ = SerialStage::kRomLoader;
    Clock::time_point quietUntil_;
    std::uint32_t rate_ = kFirstRate;
    std::uint32_t nextRate_ = 0;  // when CHANGE_BAUDRATE has been answered
    std::uint64_t traffic_ = 0;
    std::uint64_t trafficLimit_ = UINT64_MAX;

    LinePace inPace_;
    LinePace outPace_;
    SlipReader reader_;
    bool strayNoted_ = false;
    bool settingsNoted_ = false;
    std::vector<std::uint8_t> buffer_;
    std::deque<Incoming> incoming_;
    std::deque<Outgoing> outgoing_;
    Clock::time_point busyUntil_;
    Clock::duration lateness_{};  // of the last bytes sent

    // The last request, if the host can repeat it, and what became of it.
    std::vector<std::uint8_t> last_;
    SerialAnswer lastAnswer_;
    bool carriedOut_ = false;
    bool acknowledged_ = false;
    // The host has given blocks up, so the next one of another download may be marked as resent.
    bool markLeft_ = false;
    std::uint8_t earlierCommand_ = kUartSync;  // the last before of another kind
    Clock::time_point lastArrival_;
    bool said_ = true;  // anything since the last request
    // Whether it is still sure which answer the host takes for which request: an answer that is
    // late or cut, or noise, can end that.
    bool inStep_ = true;
};

}  // namespace simulator
