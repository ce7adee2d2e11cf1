#include "vorlan/burn/burnadmin.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

#include "utils/interruption.h"
#include "utils/logutil.h"
#include "utils/sysutil.h"
#include "utils/text.h"
#include "utils/trace.h"
#include "vorlan/burn/fw_download.h"
#include "vorlan/burn/usb_protocol.h"

#define LOG_TAG "BurnAdmin"

std::atomic<BurnAdmin*> BurnAdmin::instance{nullptr};

namespace {

constexpr const char* kDevicePattern = "USB\\VID_1234&PID_5678\\*";

// The body of a session's thread.
void serveSession(const std::stop_token& stop, SesHandle session, const FwDownload& download) {
    const interruption::Scope scope(stop);
    // The listener must have heard of the device before anything else is told of it.
    session->entered.acquire();
    FwDownloadProc(session, download);
    session->workerEnded = true;
}

// To be called before a worker is interrupted: afterwards it may end so soon that nobody can tell.
void noteIfRunning(BURN_SESSION& session) {
    if (!session.workerEnded)
        session.endedByForce = true;
}

// Gives back what the worker has left, once it has ended.
void releaseHandles(BURN_SESSION& session) {
    const LibusbkTable& usb = libusbkTable();
    if (session.usbHandle != nullptr)
        usb.UsbK_Free(std::exchange(session.usbHandle, nullptr));
    if (session.ovlPool != nullptr)
        usb.OvlK_Free(std::exchange(session.ovlPool, nullptr));
}

}  // namespace

BurnAdmin* BurnAdmin::getInstance() {
    if (instance == nullptr)
        instance = new BurnAdmin;
    return instance;
}

BurnAdmin* BurnAdmin::peekInstance() {
    return instance;
}

void BurnAdmin::destroyInstance() {
    BurnAdmin* const admin = instance;
    if (admin == nullptr)
        return;
    // Arrivals are closed first, so that no session enters behind our back; then all workers are
    // interrupted before the first is joined, so that they wind down together.
    admin->stopMonitor();
    for (const std::string& id : admin->interruptWorkers())
        admin->Burn_Session_Remove(id);
    instance = nullptr;
    delete admin;
}

BurnAdmin::BurnAdmin() {
    TRACE("OS_NAME=%s\n", text::narrow(sysutil::getOsName()).c_str());
    TRACE("is64BitOS=%d\n", sysutil::is64BitOS());
    binding_.emplace();
}

BurnAdmin::~BurnAdmin() = default;

std::uint32_t BurnAdmin::getSessionCount() const {
    const std::lock_guard guard(lock_);
    return count_;
}

void BurnAdmin::startMonitor(UsbListener& listener) {
    if (monitor_ != nullptr)
        return;
    listener_ = &listener;

    libusbk::MonitorParameters parameters{};
    parameters.flags = libusbk::kReportConnected;
    std::snprintf(parameters.pattern.deviceId, sizeof parameters.pattern.deviceId, "%s",
                  kDevicePattern);
    parameters.callback = onHotPlug;
    parameters.user = this;
    std::printf("Install HotK monitor for DeviceID = %s\n", kDevicePattern);
    const LibusbkTable& usb = libusbkTable();
    if (usb.HotK_Init(&monitor_, &parameters)) {
        std::printf("HotK monitor initialized successfully!\n");
    } else {
        monitor_ = nullptr;
        std::printf("HotK_Init failed. ErrorCode: %08Xh\n", usb.LibK_LastError());
    }
}

// Returns when no callback runs any more and none will.
void BurnAdmin::stopMonitor() {
    if (monitor_ == nullptr)
        return;
    const LibusbkTable& usb = libusbkTable();
    usb.HotK_Free(std::exchange(monitor_, nullptr));
    const std::uint32_t code = usb.LibK_LastError();
    if (code != libusbk::kNoError)
        std::printf("HotK_Free failed. ErrorCode: %08Xh\n", code);
    else
        std::printf("HotK monitor closed successfully!\n");
}

void BurnAdmin::onHotPlug(libusbk::Monitor* /*monitor*/, const libusbk::DeviceEntry* entry,
                          std::int32_t kind, void* self) {
    TRACE(
        "\n[%s] %s (%s) [%s]\n  InstanceID          : %s\n  DeviceInterfaceGUID : %s\n"
        "  DevicePath          : %s\n  BusNum              : %d\n  DeviceAddress       : %d\n  \n",
        kind == libusbk::kArrival ? "ARRIVAL" : "REMOVAL", entry->description, entry->manufacturer,
        entry->service, entry->deviceId, entry->deviceInterfaceGuid, entry->devicePath,
        entry->busNumber, entry->deviceAddress);
    auto* const admin = static_cast<BurnAdmin*>(self);
    if (kind == libusbk::kArrival && entry->vendorId == kVorlanVendorId &&
        entry->productId == kVorlanProductId) {
        TRACE("%04X:%04X (%s): found %s - %s, DriverID = %04X\n", entry->vendorId, entry->productId,
              entry->instanceId, entry->description, entry->manufacturer,
              static_cast<unsigned>(entry->driverId));
        admin->arrived(*entry);
    } else if (kind == libusbk::kRemoval) {
        admin->Burn_Session_Remove(entry->deviceId);
    }
}

void BurnAdmin::arrived(const libusbk::DeviceEntry& entry) {
    if (getSessionCount() >= kMaxSessions) {
        TRACE("Support at most %d vorlan devices cocurrently!\n", static_cast<int>(kMaxSessions));
        LOG_W("%s gets no burn: %u devices are connected already", entry.deviceId, kMaxSessions);
        return;
    }
    const LibusbkTable& usb = libusbkTable();
    libusbk::UsbHandle* usbHandle = nullptr;
    if (!usb.UsbK_Init(&usbHandle, &entry)) {
        const std::uint32_t code = usb.LibK_LastError();
        TRACE("Init device failed (ErrorCode: %08Xh) and CANNOT start FwDownload for %s!!\n", code,
              entry.instanceId);
        if (code == libusbk::kAccessDenied)
            LOG_W("no permission to open %s: it is taken up as soon as there is", entry.deviceId);
        else
            LOG_E("%s cannot be opened (ErrorCode: %08Xh)", entry.deviceId, code);
        return;
    }
    TRACE("Vorlan %s opened successfully!\n", entry.instanceId);
    // The interface is not claimed: the ROM loader's pipes work without.
    std::unique_ptr<BURN_SESSION> session(new (std::nothrow) BURN_SESSION);
    if (session == nullptr) {
        TRACE("No memory for BURN_SESSION!");
        usb.UsbK_Free(usbHandle);
        return;
    }
    session->usbHandle = usbHandle;
    if (!usb.OvlK_Init(&session->ovlPool, usbHandle, 1, 0))
        session->ovlPool = nullptr;
    try {
        session->device_path = entry.devicePath;
        session->device_id = entry.deviceId;
        session->bus_no = entry.busNumber;
        session->device_address = entry.deviceAddress;
        session->worker = std::jthread(serveSession, session.get(),
                                       FwDownload{getBurnerPath(), getRomWait(), *listener_});
    } catch (const std::exception&) {  // no thread, or no memory for one
        TRACE("Failed to create Firmware Download thread!\n");
        releaseHandles(*session);
        return;
    }
    if (!Burn_Session_Add(session)) {
        session->worker.request_stop();
        session->entered.release();
        session->worker.join();
        releaseHandles(*session);
    }
}

bool BurnAdmin::Burn_Session_Add(std::unique_ptr<BURN_SESSION>& session) {
    const std::lock_guard guard(lock_);
    const auto place = std::find(sessions_.begin(), sessions_.end(), nullptr);
    if (session == nullptr || place == sessions_.end())
        return false;
    TRACE("Burn_Session_Add\n");
    *place = std::move(session);
    ++count_;
    TRACE("notifyPlug\n");
    listener_->onPlug(place->get());
    (*place)->entered.release();
    return true;
}

bool BurnAdmin::Burn_Session_Remove(const std::string& device_id) {
    std::unique_ptr<BURN_SESSION> session;
    {
        const std::lock_guard guard(lock_);
        const auto place =
            std::find_if(sessions_.begin(), sessions_.end(), [&](const auto& candidate) {
                return candidate != nullptr && candidate->device_id == device_id;
            });
        if (place == sessions_.end())
            return false;
        session = std::move(*place);
        --count_;
    }
    // The listener deletes what the worker uses, so the worker has to be gone first.
    noteIfRunning(*session);
    if (session->endedByForce)
        std::printf("%s: Firmware Download Thread for %s is still alive...\n",
                    "BurnAdmin::Burn_Session_Remove", session->device_id.c_str());
    session->worker.request_stop();
    session->worker.join();
    listener_->onRemove(session.get());
    releaseHandles(*session);
    return true;
}

// Ends the waits of all workers and returns the ids of their sessions.
std::vector<std::string> BurnAdmin::interruptWorkers() {
    std::vector<std::string> ids;
    std::vector<std::stop_source> workers;
    {
        const std::lock_guard guard(lock_);
        for (const auto& session : sessions_) {
            if (session == nullptr)
                continue;
            noteIfRunning(*session);
            ids.push_back(session->device_id);
            workers.push_back(session->worker.get_stop_source());
        }
    }
    for (std::stop_source& worker : workers)
        worker.request_stop();
    return ids;
}
