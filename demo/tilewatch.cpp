#include "demo/tilewatch.h"

#include <algorithm>

namespace simulator {
namespace {

constexpr int kLimitMs = 60'000;
constexpr int kPauseMs = 500;

}  // namespace

bool TileWatch::waitFor(const char* what,
                        const std::function<bool(const Tiles&)>& condition) const {
    bool holds = false;
    WindowOperator::waitFor(
        [&] {
            holds = condition(eyes_.tiles());
            return holds || isEndedByOperator();
        },
        kLimitMs);
    if (!holds && !isEndedByOperator())
        report_.fail(std::string("waited in vain for ") + what);
    return holds;
}

bool TileWatch::waitForTile(const char* what, const std::string& name,
                            const std::function<bool(const TileView&)>& condition) const {
    return waitFor(what, [&](const Tiles& tiles) { return condition(find(tiles, name)); });
}

bool TileWatch::pause(int times) const {
    if (watched_)
        WindowOperator::waitFor([this] { return isEndedByOperator(); }, kPauseMs * times);
    return !isEndedByOperator();
}

TileView TileWatch::find(const Tiles& tiles, const std::string& name) {
    const QString text = QString::fromStdString(name);
    const auto tile = std::find_if(tiles.begin(), tiles.end(),
                                   [&](const TileView& view) { return view.name == text; });
    return tile != tiles.end() ? *tile : TileView{};
}

bool TileWatch::isBurned(const TileView& tile) {
    return tile.status.startsWith(QStringLiteral("烧录成功！"));
}

bool TileWatch::isWriting(const TileView& tile) {
    return tile.status.startsWith(QStringLiteral("正在写入"));
}

}  // namespace simulator
