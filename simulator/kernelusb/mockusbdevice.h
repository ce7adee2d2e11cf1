// A fake USB device as the kernel would show it: its usbfs node answers the calls of the real
// libusb, and packets move on its endpoints as a test, or a whole device model, lets them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct _UMockdevIoctlBase;
struct _UMockdevIoctlClient;
struct _UMockdevIoctlData;

using Bytes = std::vector<std::uint8_t>;

// Operations may be called from any thread. Interface 0 has the bulk endpoints 0x04 and 0x06 (OUT)
// and 0x83 and 0x85 (IN).
class MockUsbDevice {
  public:
    static constexpr std::size_t kPacketSize = 512;

    // What the host has asked for, counted since the device was plugged in.
    struct Counts {
        int claims = 0;
        int detaches = 0;
        int clearedHalts = 0;  // in the device, by a request to it
        int kernelClears = 0;  // on the host's side too, by the kernel
    };

    // Receives the bytes of each finished OUT transfer, on the thread of the testbed. It may
    // send().
    using Receiver = std::function<void(std::uint8_t endpoint, const Bytes& bytes)>;

    // `node` is the path of the node outside the testbed; it is made here.
    MockUsbDevice(std::string sysfsName, int address, std::string node);
    ~MockUsbDevice();
    MockUsbDevice(const MockUsbDevice&) = delete;
    MockUsbDevice& operator=(const MockUsbDevice&) = delete;

    void setReceiver(Receiver receiver);

    // Sends bytes in packets. The last one ends the host's transfer if it is shorter than a packet
    // or fills the host's buffer; no zero-length packet follows by itself, but no bytes send one.
    void send(std::uint8_t endpoint, const Bytes& bytes);

    // Sends bytes in the moment in which the host next cancels a transfer on the endpoint; what is
    // said after that is sent at the next such moment.
    void sendOnCancel(std::uint8_t endpoint, const Bytes& bytes);

    // Transfers fail until the host clears the halt.
    void stall(std::uint8_t endpoint);
    // A kernel driver has the interface; an empty name is none.
    void bindDriver(const std::string& name);
    std::string boundDriver();

    // How it behaves from now on: answers no request to itself; takes only so many more packets, if
    // not -1; takes all of a transfer, but lets it end only when the host cancels it.
    std::atomic<bool> isMute{false};
    std::atomic<int> room{-1};
    std::atomic<bool> withholdsEnd{false};

    Counts counts();
    // Waits until this many transfers are under way on the endpoint; false if that never comes.
    bool awaitPending(std::uint8_t endpoint, std::size_t count);

    const std::string& sysfsName() const { return sysfsName_; }
    int address() const { return address_; }
    const std::string& node() const { return node_; }

    // For the bus: what answers the node's calls, and the end of the device.
    _UMockdevIoctlBase* handler() const { return handler_; }
    void unplug();

  private:
    struct Urb {
        _UMockdevIoctlClient* client;
        std::shared_ptr<_UMockdevIoctlData> record;  // the host's usbdevfs_urb
        std::shared_ptr<_UMockdevIoctlData> buffer;  // null if it has no bytes
        bool request;  // to the device itself, its bytes are the setup packet
        std::uint8_t endpoint;
        std::size_t length;
        Bytes moved;
        int status = 0;
        bool finished = false;
    };
    static int onIoctl(_UMockdevIoctlBase* handler, _UMockdevIoctlClient* client, void* self);
    static void onVanished(_UMockdevIoctlBase* handler, _UMockdevIoctlClient* client, void* self);

    // Each gives the result of a call or, below 0, its errno.
    int answer(_UMockdevIoctlClient* client);
    int submit(_UMockdevIoctlClient* client);
    int reap(_UMockdevIoctlClient* client);
    int discard(_UMockdevIoctlClient* client);
    int claim(_UMockdevIoctlClient* client);
    int release(_UMockdevIoctlClient* client);
    int askDriver(_UMockdevIoctlClient* client);
    int commandDriver(_UMockdevIoctlClient* client);
    int clearHalt(_UMockdevIoctlClient* client);

    void answerRequest(Urb& urb);
    void queue(std::uint8_t endpoint, const Bytes& bytes);
    void moveIn(std::uint8_t endpoint);
    void moveOut(Urb& urb);
    void finish(Urb& urb, int status);
    void showFinished();

    const std::string sysfsName_;
    const int address_;
    const std::string node_;
    _UMockdevIoctlBase* handler_;
    int fifo_;  // the node's other end: room in it tells the host that something has finished

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_:
    Receiver receiver_;
    std::list<Urb> urbs_;
    std::map<std::uint8_t, std::deque<Bytes>> packets_;  // sent, and not fetched yet
    std::multimap<std::uint8_t, Bytes> onCancel_;
    std::optional<std::pair<std::uint8_t, Bytes>> received_;  // and not told yet
    std::set<std::uint8_t> halted_;
    std::string driver_;
    std::string detachedDriver_;
    _UMockdevIoctlClient* claimant_ = nullptr;
    bool gone_ = false;
    bool fifoFull_ = false;
    Counts counts_;
};
