// Turns the firmware package that the operator has chosen into what the burn engines need: a
// directory of unpacked images, the ordered burn list, and the burner image of the ROM stage. Each
// burn page owns one, with an unpack directory of its own.
//
// setFirmwarePath and unpack are called on the user-interface thread while the page is not burning;
// the operations that only read may then be called on any number of threads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
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
    // It may take long: `onPercent` is told how far it has come, and an interruption of the calling
    // thread ends it.
    //
    // False if the package is invalid; the run log says why. Nothing is touched then, unless it
    // shows only while unpacking: a burn.cfg that cannot be read whole, an older file that can be
    // neither replaced nor removed, an interruption; isUnpacked() is false in that case. After
    // false nobody may burn until a later unpack gives true.
    bool unpack(
        const std::wstring& directory,
        const std::function<void(int percent)>& onPercent = [](int) {});

    // Whether the chosen package lies where `directory`, or an earlier unpack, would be cleared:
    // such a package is invalid, since unpacking would delete it.
    bool liesInUnpackDirectory(const std::wstring& directory) const;

    // SHA-256 of the package that was unpacked last, in hexadecimal digits. Empty before that, or
    // if the file has gone meanwhile.
    std::string getSha256() const { return sha256_; }

    // True once an unpack has finished.
    bool isUnpacked() const { return unpacked_; }

    // What to burn, in burn order, with paths and final addresses: the fixed images first, then the
    // further ones of burn.cfg. What the package lists and could not be unpacked is among them, so
    // that the burn fails there. An item of burn.cfg for which there is no entry and no file is
    // left out, which the run log tells. Empty before the first unpack.
    std::vector<BurnItem> getBurnItems() const;

    // Empty if the package has no burner image, or before the first unpack.
    std::wstring getBurnerPath() const;

  private:
    bool validate();
    bool readNames();
    bool hasItem(const std::wstring& name) const { return itemNames_.count(name) != 0; }
    bool lists(const std::wstring& name) const;
    void clearTempDir();
    bool extractAll(const std::function<void(int percent)>& onPercent);
    bool loadCfg();
    void appendFixedItem(const std::wstring& name, std::uint32_t defaultAddr, BurnCfg& cfg,
                         std::vector<BurnItem>& items) const;

    std::wstring firmwarePath_;
    std::wstring tempDir_;  // of the last unpack that got past validation
    // Of the package last validated: its names, and the files that they stand for, as paths of one
    // spelling.
    std::set<std::wstring> itemNames_;
    std::map<std::wstring, std::wstring> itemFiles_;
    std::uint64_t declaredSize_ = 0;  // of all its entries together, in bytes
    BurnCfg cfgItems_;
    std::string sha256_;
    bool unpacked_ = false;
};
