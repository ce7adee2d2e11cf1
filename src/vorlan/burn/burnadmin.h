// Keeper of the USB sessions: watches for devices, makes a session with a worker for each, removes
// it when the device leaves, and tells one UsbListener about all of it.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vorlan/burn/burn_session.h"
#include "vorlan/burn/libusbktable.h"
#include "vorlan/burn/usblistener.h"

// A singleton that lives from the operator's start to the operator's stop. getInstance, the
// setters, startMonitor and destroyInstance belong to the operator's thread, which must hold no
// lock that a listener wants; the rest may be called from any thread that the instance is known to
// outlive: its workers and its hot-plug thread end before it does.
class BurnAdmin {
  public:
    static constexpr std::uint32_t kMaxSessions = 16;

    // The singleton, made if there is none. Binds libusbK; where that fails, no device ever
    // arrives.
    static BurnAdmin* getInstance();
    // The singleton or null.
    static BurnAdmin* peekInstance();
    // Ends the monitor, interrupts all workers, removes every session and deletes the singleton.
    static void destroyInstance();

    BurnAdmin(const BurnAdmin&) = delete;
    BurnAdmin& operator=(const BurnAdmin&) = delete;

    // Path of the image that the ROM stage downloads. Set before the monitor starts.
    void setBurnerPath(const std::string& path) { burnerPath_ = path; }
    std::string getBurnerPath() const { return burnerPath_; }

    // Time in ms that a device's ROM gets before its first message. Set before the monitor starts.
    void setRomWait(std::uint32_t ms) { romWait_ = ms; }
    std::uint32_t getRomWait() const { return romWait_; }

    std::uint32_t getSessionCount() const;

    // Starts watching, unless a monitor runs already. Devices that are connected already arrive.
    void startMonitor(UsbListener& listener);

    // Takes the session into the table, tells the listener and lets the session's worker begin.
    // False if there is no room; the session then stays the caller's.
    bool Burn_Session_Add(std::unique_ptr<BURN_SESSION>& session);
    // Interrupts and joins the session's worker, tells the listener, and frees the session. False
    // if there is none of that id.
    bool Burn_Session_Remove(const std::string& device_id);

  private:
    BurnAdmin();
    ~BurnAdmin();

    static void onHotPlug(libusbk::Monitor* monitor, const libusbk::DeviceEntry* entry,
                          std::int32_t kind, void* self);
    void arrived(const libusbk::DeviceEntry& entry);
    void stopMonitor();
    std::vector<std::string> interruptWorkers();

    static std::atomic<BurnAdmin*> instance;

    std::optional<LibusbkBinding> binding_;  // first member: all else goes before it
    std::array<std::unique_ptr<BURN_SESSION>, kMaxSessions> sessions_;  // null where free
    mutable std::mutex lock_;                                           // guards table and count
    std::uint32_t count_ = 0;
    libusbk::Monitor* monitor_ = nullptr;
    UsbListener* listener_ = nullptr;  // null until the monitor starts
    std::string burnerPath_;
    std::uint32_t romWait_ = 0;
};
