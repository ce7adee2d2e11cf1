// Drives one device through one burn: opens the device that runs the burner image, writes every
// image to its flash address and the serial number behind them, and reports to a BurnListener.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vorlan/burn/burnlistener.h"
#include "vorlan/burn/usb_protocol.h"
#include "vorlan/burn/vorlan_device.h"
#include "vorlan/firmware/burnitem.h"

class ImageSource;

// An agent belongs to one thread while it runs and serves one burn; a new burn needs a new agent.
// When that thread is interrupted, the agent's waits end at once and it reports no failure any
// more, but a burn whose last command the device has confirmed is still reported as done.
class BurnAgent {
  public:
    explicit BurnAgent(std::string device_id);

    // The serial number, as plain bytes, and its flash address. An empty number is not written.
    void set_sn(const std::string& sn, std::uint32_t address);

    std::string get_device_id() const { return device_id_; }
    std::string get_sn() const { return sn_; }
    // Whether the whole burn has succeeded.
    bool is_done() const { return done_; }

    // Runs the job on the calling thread and returns when it has ended; the outcome goes to the
    // listener, which is not owned and may be null. The mode is CMD_CODE_FLASH_WRITE to burn,
    // CMD_CODE_ERASE_ONLY to erase, anything else to verify.
    void run(std::vector<BurnItem> items, BurnListener* listener, unsigned mode);

    // The commands, each of which returns false, with the reason in the run log, if it has failed.
    // Times are in ms, sizes in bytes.
    bool vorlan_sync(VORLAN_DEVICE* device, unsigned retries);
    bool vorlan_set_crc64(VORLAN_DEVICE* device, std::uint64_t crc, std::uint32_t flags);
    // Polls until the command has ended; only the answers are checked for its code.
    bool vorlan_get_result(VORLAN_DEVICE* device, std::uint8_t cmdcode, std::uint32_t timeout);
    // Reports progress under `tag`.
    bool vorlan_burn(VORLAN_DEVICE* device, std::uint32_t address, const std::uint8_t* data,
                     std::uint32_t size, std::uint32_t flags, const std::string& tag);
    // Reports progress of the current item.
    bool vorlan_burn(VORLAN_DEVICE* device, std::uint32_t address, std::FILE* file,
                     std::uint32_t flags);
    bool vorlan_verify_only(VORLAN_DEVICE* device, std::uint32_t address, std::FILE* file,
                            std::uint32_t flags);
    bool vorlan_erase_only(VORLAN_DEVICE* device, std::uint32_t address, std::uint32_t size,
                           std::uint32_t flags);
    // One exchange of any command that has no operation of its own. `pCmd` is an encoded record of
    // at least 16 bytes. `respcode`, if not null, gets the code of the last answer.
    bool vorlan_send_usb_command(VORLAN_DEVICE* device, const std::uint8_t* pCmd,
                                 std::uint32_t nCmdSize, unsigned retries, unsigned wait,
                                 std::uint8_t* respcode);

    // Version text of the program, "unknown" where the helper library that tells it is missing.
    static std::string get_version();

  private:
    bool runItems(unsigned mode);
    bool runItem(const BurnItem& item, unsigned mode);
    bool burnSn();

    bool burnImage(VORLAN_DEVICE* device, std::uint32_t address, ImageSource& image,
                   std::uint32_t flags, const std::string& tag);
    bool writeImage(VORLAN_DEVICE* device, std::uint32_t address, ImageSource& image,
                    std::uint32_t flags, const std::string& tag);
    bool sendData(VORLAN_DEVICE* device, ImageSource& image, const std::string& tag);
    bool announceCrc64(VORLAN_DEVICE* device, ImageSource& image, std::uint32_t flags,
                       const char* operation);

    void reportProgress(const std::string& tag, unsigned percent);
    void reportError(int code, const std::string& message);

    std::string device_id_;
    VORLAN_DEVICE* pVorDev_ = nullptr;  // open while run is active
    std::vector<BurnItem> items_;
    std::uint32_t currentItem_ = 0;
    std::uint32_t flags_ = BURN_FLAG_CRC64;
    BurnListener* listener_ = nullptr;
    std::string sn_;
    std::uint32_t snAddress_ = 0;
    bool done_ = false;
};
