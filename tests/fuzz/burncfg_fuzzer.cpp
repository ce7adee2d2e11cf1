// Any bytes as "burn.cfg".
#include <cstdint>
#include <string>

#include "fuzzing.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"
#include "vorlan/firmware/burncfg.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceOutput();
    static const TemporaryDirectory directory;
    static const std::wstring path = text::widen((directory.path() / "burn.cfg").string());
    writeContent(directory.path() / "burn.cfg",
                 std::string(reinterpret_cast<const char*>(data), size));
    BurnCfg cfg;
    const bool loaded = cfg.load(path) == BurnCfg::Load::kLoaded;
    const auto items = cfg.getItems();
    require(loaded || items.empty(), "no items of a file that did not load");
    std::size_t used = 0;
    for (const BurnItem& item : items)
        cfg.markUsed(item.file);
    for (const BurnItem& item : cfg.getItems())
        used += item.used;
    require(used <= items.size() && (used == 0) == items.empty(), "items are marked once");
    return 0;
}
