// The list that a package's "burn.cfg" gives: addresses for the fixed images, and further images
// with theirs. A plain value without locks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorlan/firmware/burnitem.h"

class BurnCfg {
  public:
    // What getAddr answers when there is no such entry.
    static constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;

    // No list of images is larger. A parsed document takes up to 30 times the memory of its text.
    static constexpr std::uintmax_t kSizeLimit = 16 << 20;  // bytes

    enum class Load {
        kLoaded,
        kNoJson,      // empty or no JSON: the same as no file
        kUnreadable,  // cannot be read whole, or is larger than the limit: nobody knows what it
                      // says
    };

    // Replaces the list by what the file says; entries without name or address are skipped. The
    // list stays as it was unless the file was loaded; the run log then says why.
    Load load(const std::wstring& path);

    // Address of the first entry of that name, compared exactly, or kNoAddress. An entry whose own
    // address is that value counts as one without.
    std::uint32_t getAddr(const std::wstring& name) const;

    // Sets `used` on the first entry of that name, if any.
    void markUsed(const std::wstring& name);

    // Entries in the order of the file; `file` is the bare name.
    std::vector<BurnItem> getItems() const { return items_; }

    void clear() { items_.clear(); }

  private:
    std::vector<BurnItem> items_;
};
