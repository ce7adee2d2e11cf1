// Turns the firmware package that the operator has chosen into what the burn engines need: a
// directory of unpacked images, the ordered burn list, and the burner image of the ROM stage. Each
// burn page owns one, with an unpack directory of its own.
//
// setFirmwarePath and unpack are called on the user-interface thread while the page is not burning;
// the operations that only read may then be called on any number of threads.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "vorlan/firmware/burncfg.h"
#include "vorlan/firmware/burnitem.h"

class FirmwareManager {
  public:
    using BurnItem = ::BurnItem;

    // Only stored; nothing is opened yet.
    void setFirmwarePath(const std::wstring& path) { firmwarePath_ = path; }

    // Empty at first.
    std::wstring getFirmwarePath() const { return firmwarePath_; }

    // Unpacks the package into `directory`, which ends in a separator, in place of what the unpack
    // before this one left, and reads its burn.cfg. An entry that cannot be unpacked is missing
    // afterwards, also if an older package had left such a file, and the burn that wants it fails.
    //
    // False if the package is invalid: no ZIP archive, without "flashboot.bin" or without a main
    // image, or declaring more than 1 GiB or naming more than 100,000 files and directories;
    // nothing is touched then. False too, with isUnpacked() false, if an older file can be neither
    // replaced nor removed, so that no stale image is burned. After false nobody may burn until a
    // later unpack gives true.
    bool unpack(const std::wstring& directory);

    // True once an unpack has finished.
    bool isUnpacked() const { return unpacked_; }

    // What to burn, in burn order, with paths and final addresses: the fixed images first, then the
    // further ones of burn.cfg. Those without a file in the unpack directory are left out, which
    // the trace tells. Empty before the first unpack.
    std::vector<BurnItem> getBurnItems() const;

    // Empty if the package has no burner image, or before the first unpack.
    std::wstring getBurnerPath() const;

  private:
    bool validate();
    bool hasItem(const std::wstring& name) const { return itemNames_.count(name) != 0; }
    void clearTempDir();
    bool extractAll();
    void appendFixedItem(const std::wstring& name, std::uint32_t defaultAddr, BurnCfg& cfg,
                         std::vector<BurnItem>& items) const;

    std::wstring firmwarePath_;
    std::wstring tempDir_;              // of the last unpack that got past validation
    std::set<std::wstring> itemNames_;  // of the package last validated
    BurnCfg cfgItems_;
    bool unpacked_ = false;
};
