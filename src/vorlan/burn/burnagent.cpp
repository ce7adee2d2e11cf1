#include "vorlan/burn/burnagent.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <utility>

#include "platform/dynamiclibrary.h"
#include "platform/libusbk.h"
#include "utils/fileutil.h"
#include "utils/interruption.h"
#include "utils/logutil.h"
#include "utils/text.h"
#include "vorlan/burn/burn_limits.h"
#include "vorlan/burn/burnprogress.h"
#include "vorlan/burn/command_exchange.h"
#include "vorlan/burn/imagesource.h"

#define LOG_TAG "BurnAgent"

using namespace std::chrono_literals;

namespace {

constexpr const char* kBurnOperation = "BurnAgent::vorlan_burn";
constexpr const char* kVerifyOperation = "BurnAgent::vorlan_verify_only";
constexpr const char* kEraseOperation = "BurnAgent::vorlan_erase_only";

// Whole seconds, as the limit for a chunk counts them.
std::int64_t secondsNow() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

bool isUsable(const FileImage& image, const char* operation) {
    if (!image.isUsable())
        LOG_E("%s: the size of the image file cannot be told or is too large!\n", operation);
    return image.isUsable();
}

ImageSource::Chunk nextChunk(ImageSource& image, std::uint32_t left) {
    const std::uint32_t wanted = std::min(kChunkSize, left);
    for (;;) {
        const ImageSource::Chunk chunk = image.next(wanted);
        if (chunk.result != ImageSource::Result::kIncomplete)
            return chunk;
        std::printf("\n%s: no end & no error, but read %u (< %u) bytes!\n", kBurnOperation,
                    chunk.count, wanted);
    }
}

bool anyCommand(std::uint8_t /*cmdorg*/) {
    return true;
}

template <CommandCode code>
bool onlyCommand(std::uint8_t cmdorg) {
    return cmdorg == code;
}

template <CommandCode code>
bool commandOrNone(std::uint8_t cmdorg) {
    return cmdorg == code || cmdorg == CMD_CODE_UNUSED;
}

}  // namespace

BurnAgent::BurnAgent(std::string device_id) : device_id_(std::move(device_id)) {}

void BurnAgent::set_sn(const std::string& sn, std::uint32_t address) {
    sn_ = sn;
    snAddress_ = address;
}

void BurnAgent::run(std::vector<BurnItem> items, BurnListener* listener, unsigned mode) {
    items_ = std::move(items);
    listener_ = listener;
    pVorDev_ = vorlan_device_open(device_id_.c_str());
    if (pVorDev_ == nullptr) {
        reportError(-1, "Cannot open device!");
        return;
    }
    if (vorlan_sync(pVorDev_, 10)) {
        interruption::sleep(1ms);
        if (listener_ != nullptr)
            listener_->onBurnStart(this);
        if (runItems(mode) && burnSn()) {
            if (listener_ != nullptr)
                listener_->onBurnDone(this);
            done_ = true;
        }
    } else {
        reportError(-2, "Failed to sync device!");
    }
    vorlan_device_close(std::exchange(pVorDev_, nullptr));
}

bool BurnAgent::runItems(unsigned mode) {
    if (mode != CMD_CODE_FLASH_WRITE && mode != CMD_CODE_ERASE_ONLY)
        flags_ |= BURN_FLAG_CRC64;
    for (const BurnItem& item : items_) {
        if (!runItem(item, mode))
            return false;
        if (mode == CMD_CODE_FLASH_WRITE)
            ++currentItem_;
    }
    return true;
}

bool BurnAgent::runItem(const BurnItem& item, unsigned mode) {
    const std::string path = text::narrow(item.file);
    const fileutil::FilePtr file = fileutil::openFile(path, "rb");
    if (file == nullptr) {
        reportError(-3, "Open file failed! path=" + path);
        return false;
    }
    switch (mode) {
        case CMD_CODE_FLASH_WRITE:
            return vorlan_burn(pVorDev_, item.addr, file.get(), flags_);
        case CMD_CODE_ERASE_ONLY: {
            const FileImage image(file.get());
            return isUsable(image, kEraseOperation) &&
                   vorlan_erase_only(pVorDev_, item.addr, image.size(), flags_);
        }
        default:
            return vorlan_verify_only(pVorDev_, item.addr, file.get(), flags_);
    }
}

bool BurnAgent::burnSn() {
    if (sn_.empty())
        return true;
    return vorlan_burn(pVorDev_, snAddress_, reinterpret_cast<const std::uint8_t*>(sn_.data()),
                       static_cast<std::uint32_t>(sn_.size()), flags_, "SN=" + sn_);
}

bool BurnAgent::vorlan_sync(VORLAN_DEVICE* device, unsigned retries) {
    const Record record = encode({.cmdcode = CMD_CODE_SYNC});
    for (unsigned i = 0; i < retries; ++i) {
        USB_RESP_COMMON response;
        if (exchangeCommand(device, record, response) != Exchange::kAnswered ||
            response.respcode == RESP_CODE_RETRY) {
            if (!interruption::sleep(10ms))
                return false;
            continue;
        }
        if (response.respcode == RESP_CODE_SUCCESS && commandOrNone<CMD_CODE_SYNC>(response.cmdorg))
            return true;
        if (response.respcode == RESP_CODE_ERROR) {
            const std::string description = readErrorDescription(device, response.errdesc_len);
            LOG_E("vorlan SYNC command failed! in response, cmdorg = %d, %s: %s\n", response.cmdorg,
                  "BurnAgent::vorlan_sync", description.c_str());
            return false;
        }
    }
    LOG_E("vorlan SYNC command has been retried for %u times, FAILED!\n", retries);
    return false;
}

bool BurnAgent::vorlan_set_crc64(VORLAN_DEVICE* device, std::uint64_t crc, std::uint32_t flags) {
    return beginCommand(device, encodeSetCrc64(flags, crc),
                        {.operation = "BurnAgent::vorlan_set_crc64",
                         .command = "SET_CRC64",
                         .awaited = RESP_CODE_SUCCESS,
                         .accepts = onlyCommand<CMD_CODE_SET_CRC64>,
                         .errorPrefix = "vorlan SET_CRC64 command failed! "});
}

bool BurnAgent::vorlan_get_result(VORLAN_DEVICE* device, std::uint8_t cmdcode,
                                  std::uint32_t timeout) {
    constexpr const char* kOperation = "BurnAgent::vorlan_get_result";
    const Record record = encode({.cmdcode = CMD_CODE_GET_RESULT});
    for (std::uint32_t left = resultPolls(timeout); left > 0; --left) {
        USB_RESP_COMMON response;
        const Exchange exchange = exchangeCommand(device, record, response);
        if (exchange == Exchange::kNotSent)
            return false;
        const bool accepted = exchange == Exchange::kAnswered &&
                              (response.cmdorg == cmdcode || response.cmdorg == CMD_CODE_UNUSED);
        if (accepted && response.respcode == RESP_CODE_SUCCESS)
            return true;
        if (accepted && response.respcode == RESP_CODE_ERROR) {
            const std::string description = readErrorDescription(device, response.errdesc_len);
            LOG_E("%s: %s\n", kOperation, description.c_str());
            return false;
        }
        interruption::sleep(std::chrono::milliseconds(kResultPollMs));
    }
    LOG_E("%s: timeout!\n", kOperation);
    return false;
}

bool BurnAgent::vorlan_burn(VORLAN_DEVICE* device, std::uint32_t address, const std::uint8_t* data,
                            std::uint32_t size, std::uint32_t flags, const std::string& tag) {
    MemoryImage image(data, size);
    return burnImage(device, address, image, flags, tag);
}

bool BurnAgent::vorlan_burn(VORLAN_DEVICE* device, std::uint32_t address, std::FILE* file,
                            std::uint32_t flags) {
    FileImage image(file);
    return isUsable(image, kBurnOperation) && burnImage(device, address, image, flags, "");
}

bool BurnAgent::burnImage(VORLAN_DEVICE* device, std::uint32_t address, ImageSource& image,
                          std::uint32_t flags, const std::string& tag) {
    LOG_D("burn flash from 0x%x to 0x%x\n", address, address + image.size());
    if (!writeImage(device, address, image, flags, tag)) {
        LOG_E("\n%s: FLASH_WRITE command failed!\n", kBurnOperation);
        return false;
    }
    reportProgress(tag, 100);
    LOG_D("\n%s: FLASH_WRITE command successful!\n", kBurnOperation);
    return true;
}

bool BurnAgent::writeImage(VORLAN_DEVICE* device, std::uint32_t address, ImageSource& image,
                           std::uint32_t flags, const std::string& tag) {
    const bool checked = (flags & BURN_FLAG_CRC64) != 0;
    if (checked && !announceCrc64(device, image, flags, kBurnOperation))
        return false;
    if (!beginCommand(device,
                      encode({.cmdcode = CMD_CODE_FLASH_WRITE,
                              .flags = flags,
                              .address = address,
                              .size = image.size()}),
                      {.operation = kBurnOperation,
                       .command = "FLASH_WRITE",
                       .awaited = RESP_CODE_READY,
                       .accepts = anyCommand,
                       .errorPrefix = ""}))
        return false;
    interruption::sleep(10ms);
    reportProgress(tag, 0);
    image.rewind();

    return sendData(device, image, tag) &&
           vorlan_get_result(device, CMD_CODE_FLASH_WRITE,
                             writeResultTimeout(image.size(), checked));
}

bool BurnAgent::sendData(VORLAN_DEVICE* device, ImageSource& image, const std::string& tag) {
    const std::int64_t maxWait = maxChunkWait(image.size());
    BurnProgress progress(image.size());
    const auto reportIfDue = [&] {
        if (const auto percent = progress.due())
            reportProgress(tag, *percent);
    };
    ImageSource::Chunk chunk = nextChunk(image, image.size());
    for (std::uint32_t sent = 0; sent < image.size();) {
        if (chunk.result == ImageSource::Result::kError) {
            LOG_E("\n%s: error(%08Xh) occurs in reading image file! readBytes = %u\n",
                  kBurnOperation, static_cast<unsigned>(chunk.error), chunk.count);
            return false;
        }
        if (chunk.count == 0)
            break;  // the file has become shorter: the device's check decides
        if (vorlan_device_write(device, chunk.bytes, chunk.count, EP_ADDR_DATA_RESP_OUT,
                                kTransferTimeoutMs, nullptr) < chunk.count)
            return false;
        sent += chunk.count;
        // Fetched while the device programs.
        chunk = nextChunk(image, image.size() - sent);

        // The device answers once it has programmed the chunk. Until then it answers SYNC.
        Record answer{};
        const std::int64_t start = secondsNow();
        for (;;) {
            std::uint32_t error = 0;
            const std::uint32_t bytes =
                vorlan_device_read(device, answer.data(), kRecordSize, EP_ADDR_DATA_RESP_IN,
                                   kTransferTimeoutMs, &error);
            if (bytes == kRecordSize)
                break;
            if (error == libusbk::kOperationAborted)
                return false;
            if (error != libusbk::kCancelled) {
                std::printf("%s: failed to read data response, bytes = %u, ErrorCode = 0x%08x\n",
                            kBurnOperation, bytes, error);
                return false;
            }
            const std::int64_t elapsed = secondsNow() - start;
            if (elapsed > maxWait) {
                std::printf("%s: timeout to read data response (elasped %d sec)!\n", kBurnOperation,
                            static_cast<int>(elapsed));
                return false;
            }
            if (!vorlan_sync(device, 3))
                return false;
            progress.waited();
            reportIfDue();
            interruption::sleep(20ms);
        }

        const USB_RESP_COMMON response = decodeResponse(answer);
        if (response.respcode == RESP_CODE_ERROR) {
            const std::string description = readErrorDescription(device, response.errdesc_len);
            LOG_E("%s: %s\n", kBurnOperation, description.c_str());
        }
        if (response.respcode != RESP_CODE_READY)
            return false;
        progress.dataSent(sent);
        reportIfDue();
    }
    return true;
}

bool BurnAgent::vorlan_verify_only(VORLAN_DEVICE* device, std::uint32_t address, std::FILE* file,
                                   std::uint32_t flags) {
    FileImage image(file);
    if (!isUsable(image, kVerifyOperation))
        return false;
    LOG_D("verify flash from 0x%x to 0x%x\n", address, address + image.size());
    if (!announceCrc64(device, image, flags, kVerifyOperation))
        return false;
    if (!beginCommand(device,
                      encode({.cmdcode = CMD_CODE_VERIFY_ONLY,
                              .flags = flags,
                              .address = address,
                              .size = image.size()}),
                      {.operation = kVerifyOperation,
                       .command = "VERIFY_ONLY",
                       .awaited = RESP_CODE_ONGOING,
                       .accepts = commandOrNone<CMD_CODE_VERIFY_ONLY>,
                       .errorPrefix = ""}))
        return false;
    interruption::sleep(20ms);
    const bool verified =
        vorlan_get_result(device, CMD_CODE_VERIFY_ONLY, scanResultTimeout(image.size()));
    LOG_E("%s: VERIFY_ONLY command %s!\n", kVerifyOperation, verified ? "succeed" : "failed");
    return verified;
}

bool BurnAgent::vorlan_erase_only(VORLAN_DEVICE* device, std::uint32_t address, std::uint32_t size,
                                  std::uint32_t flags) {
    LOG_D("%s: erase only, address = 0x%x, size = 0x%x\n", kEraseOperation, address, size);
    if (!beginCommand(
            device,
            encode(
                {.cmdcode = CMD_CODE_ERASE_ONLY, .flags = flags, .address = address, .size = size}),
            {.operation = kEraseOperation,
             .command = "ERASE_ONLY",
             .awaited = RESP_CODE_ONGOING,
             .accepts = commandOrNone<CMD_CODE_ERASE_ONLY>,
             .errorPrefix = ""}))
        return false;
    interruption::sleep(20ms);
    const bool erased = vorlan_get_result(device, CMD_CODE_ERASE_ONLY, scanResultTimeout(size));
    if (erased)
        LOG_D("%s: ERASE_ONLY command succeed!\n", kEraseOperation);
    else
        LOG_E("%s: ERASE_ONLY command failed!\n", kEraseOperation);
    return erased;
}

// The device checks the data of the next command against this CRC.
bool BurnAgent::announceCrc64(VORLAN_DEVICE* device, ImageSource& image, std::uint32_t flags,
                              const char* operation) {
    std::uint64_t crc = 0;
    if (!imageCrc64(image, crc)) {
        LOG_E("%s: FAILED to calculate crc64 value of image data!\n", operation);
        return false;
    }
    if (!vorlan_set_crc64(device, crc, flags)) {
        LOG_E("%s: FAILED to set crc64 value into vorlan device!\n", operation);
        return false;
    }
    return true;
}

bool BurnAgent::vorlan_send_usb_command(VORLAN_DEVICE* device, const std::uint8_t* pCmd,
                                        std::uint32_t nCmdSize, unsigned retries, unsigned wait,
                                        std::uint8_t* respcode) {
    assert(pCmd != nullptr && nCmdSize >= kRecordSize && commandCodeOf(pCmd) < CMD_CODE_COUNT);
    constexpr const char* kOperation = "BurnAgent::vorlan_send_usb_command";
    const std::uint8_t cmdcode = commandCodeOf(pCmd);
    if (respcode != nullptr)
        *respcode = RESP_CODE_ERROR;
    for (unsigned i = 0; i < retries; ++i) {
        USB_RESP_COMMON response;
        const Exchange exchange = exchangeCommand(device, pCmd, nCmdSize, response);
        if (exchange == Exchange::kNotSent)
            return false;
        const bool useful = exchange == Exchange::kAnswered &&
                            (response.cmdorg == cmdcode || response.cmdorg == CMD_CODE_UNUSED) &&
                            response.respcode != RESP_CODE_RETRY;
        if (!useful) {
            interruption::sleep(std::chrono::milliseconds(wait));
            continue;
        }
        if (respcode != nullptr)
            *respcode = response.respcode;
        if (response.respcode != RESP_CODE_ERROR)
            return true;
        const std::string description = readErrorDescription(device, response.errdesc_len);
        LOG_E("%s: %s\n", kOperation, description.c_str());
        return false;
    }
    LOG_E("%s: has retried sending %s for %u times!\n", kOperation, commandName(cmdcode), retries);
    return false;
}

std::string BurnAgent::get_version() {
    using GetVersionFromRC = int (*)(std::uint32_t * high, std::uint32_t * low);
    platform::DynamicLibrary helper;
    if (!helper.load("vln_helper")) {
        LOG_E("open vln_helper.dll failed\n");
        return "unknown";
    }
    const auto getVersion = reinterpret_cast<GetVersionFromRC>(helper.symbol("GetVersionFromRC"));
    if (getVersion == nullptr) {
        LOG_E("function GetVersionFromRC not found in vln_helper.dll\n");
        return "unknown";
    }
    std::uint32_t high = 0;
    std::uint32_t low = 0;
    if (getVersion(&high, &low) == 0)
        return "unknown";
    std::string version;
    for (const std::uint32_t part : {high >> 16, high, low >> 16, low})
        version += (version.empty() ? "" : ".") + std::to_string(part & 0xFF);
    return version;
}

void BurnAgent::reportProgress(const std::string& tag, unsigned percent) {
    if (listener_ == nullptr)
        return;
    if (!tag.empty())
        listener_->onBurnProgress(this, tag, percent);
    else if (currentItem_ < items_.size())
        listener_->onItemProgress(this, &items_[currentItem_], percent);
}

void BurnAgent::reportError(int code, const std::string& message) {
    if (listener_ != nullptr && !interruption::requested())
        listener_->onBurnError(this, code, message);
}
