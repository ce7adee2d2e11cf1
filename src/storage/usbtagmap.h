// The labels that the operator has given to the places where devices are plugged in, kept in the
// file "tag_map" of the current directory. Owned by the USB burn page.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

class ArchiveReader;
class ArchiveWriter;

// Names the place of a device for good: the text of its deviceId from the last backslash on, that
// backslash included. The whole text if it has none; empty for no device.
std::wstring makePlugId(const std::wstring& deviceId);

struct UsbTag {
    std::int32_t index = -1;  // number of the tile when it was saved, 0 to 15
    std::wstring plugId;
    std::wstring tag;  // the label, which may be empty
};

// findTag, storeTag and clearTags may be called from any thread; the file belongs to the
// user-interface thread, which does not use it while another thread stores or clears.
class UsbTagMap {
  public:
    // A copy of the place's entry; one with start values if there is none.
    UsbTag findTag(const std::wstring& plugId) const;

    // Makes or replaces the place's entry. An empty plugId stores nothing.
    void storeTag(const std::wstring& plugId, const UsbTag& tag);

    void clearTags();

    // Adds the file's entries; without a file nothing happens. A file that is cut off or cannot be
    // read is deleted: false, and the entries before the damage are kept.
    bool load();

    // Replaces the file as a whole. False if that failed; the old file is then still there.
    bool save() const;

    void Serialize(ArchiveReader& archive);
    void Serialize(ArchiveWriter& archive) const;

  private:
    // By UTF-16 code units, whatever a wide character holds here, so that the file's order is the
    // same on every system.
    struct ByCodeUnits {
        bool operator()(const std::wstring& a, const std::wstring& b) const;
    };

    mutable std::mutex lock_;  // guards tags_, save for the file's operations
    std::map<std::wstring, UsbTag, ByCodeUnits> tags_;
};
