#include "demo/floor/floor.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QTabWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <chrono>
#include <utility>

#include "demo/floor/serialsocket.h"
#include "demo/floor/usbsocket.h"
#include "storage/globalstorage.h"

using namespace std::chrono_literals;

namespace simulator {
namespace {

constexpr auto kRefresh = 500ms;
constexpr int kHoldsWidth = 190;  // pixels

QString plugText(const Socket& socket, bool plugged) {
    return (plugged ? QStringLiteral("拔出 ") : QStringLiteral("插入 ")) + socket.name();
}

}  // namespace

Floor::Floor(FloorGoods goods, const std::filesystem::path& ports) : goods_(std::move(goods)) {
    std::filesystem::remove_all(ports);
    std::filesystem::create_directories(ports);
    for (std::size_t i = 0; i < kSockets; ++i)
        places_.push_back({.socket = std::make_unique<UsbSocket>(bus_, static_cast<int>(i) + 1)});
    for (std::size_t i = 0; i < kSockets; ++i)
        places_.push_back(
            {.socket = std::make_unique<SerialSocket>(ports_, ports, static_cast<int>(i))});

    setAttribute(Qt::WA_QuitOnClose, false);
    setWindowTitle(QStringLiteral("模拟工位"));
    auto* const pace = new QHBoxLayout;
    pace->addWidget(new QLabel(QStringLiteral("设备速度：")));
    pace_ = new QComboBox;
    pace_->addItems({QStringLiteral("与真实设备相同"), QStringLiteral("快")});
    pace->addWidget(pace_);
    pace->addStretch();
    pace->addWidget(new QLabel(QStringLiteral("每次插入的都是新设备")));
    auto* const roads = new QTabWidget;
    roads->addTab(makeRoad(0), QStringLiteral("USB设备"));
    roads->addTab(makeRoad(kSockets), QStringLiteral("串口设备"));
    auto* const all = new QVBoxLayout(this);
    all->addLayout(pace);
    all->addWidget(roads);

    connect(&timer_, &QTimer::timeout, this, [this] { refresh(); });
    timer_.start(kRefresh);
    refresh();
}

// Of the sixteen sockets from `first` on.
QWidget* Floor::makeRoad(std::size_t first) {
    auto* const road = new QWidget;
    auto* const grid = new QGridLayout(road);
    auto* const in = new QPushButton(QStringLiteral("全部插入"));
    auto* const out = new QPushButton(QStringLiteral("全部拔出"));
    connect(in, &QPushButton::clicked, this, [this, first] { setAll(first, true); });
    connect(out, &QPushButton::clicked, this, [this, first] { setAll(first, false); });
    grid->addWidget(in, 0, 0);
    grid->addWidget(out, 0, 1);
    for (std::size_t i = 0; i < kSockets; ++i) {
        Place& place = places_[first + i];
        place.plug = new QPushButton(plugText(*place.socket, false));
        place.trouble = new QComboBox;
        place.trouble->addItems(place.socket->troubles());
        place.trouble->setAccessibleName(place.socket->name());
        place.holds = new QLabel;
        place.holds->setMinimumWidth(kHoldsWidth);
        const int row = static_cast<int>(i) + 1;
        grid->addWidget(place.plug, row, 0);
        grid->addWidget(place.trouble, row, 1);
        grid->addWidget(place.holds, row, 2);
        connect(place.plug, &QPushButton::clicked, this, [this, &place] { press(place); });
    }
    return road;
}

void Floor::press(Place& place) {
    // As the button said: the device may have left by itself since.
    if (place.plugged)
        place.socket->unplug();
    else
        plug(place);
    refresh();
}

void Floor::setAll(std::size_t first, bool plugged) {
    for (std::size_t i = first; i < first + kSockets; ++i) {
        Place& place = places_[i];
        if (place.socket->isPlugged() == plugged)
            continue;
        if (plugged)
            plug(place);
        else
            place.socket->unplug();
    }
    refresh();
}

void Floor::plug(Place& place) {
    place.socket->plug(place.trouble->currentIndex(),
                       pace_->currentIndex() == 0 ? Pace::kReal : Pace::kFast);
}

void Floor::refresh() {
    for (Place& place : places_) {
        const bool plugged = place.socket->isPlugged();
        if (place.plugged && !plugged)
            place.socket->unplug();  // it may have left by itself
        if (place.plugged != plugged)
            place.plug->setText(plugText(*place.socket, plugged));
        place.plugged = plugged;
        const std::shared_ptr<const Flash> flash = place.socket->flash();
        place.holds->setText(flash != nullptr ? contentOf(*flash) : QStringLiteral("—"));
    }
}

QString Floor::contentOf(const Flash& flash) const {
    std::uint64_t bytes = 0;
    for (const Flash::Range& range : flash.writtenRanges())
        bytes += range.size;
    if (bytes == 0)
        return QStringLiteral("空");
    const std::uint32_t address = GlobalStorage::getInstance().getSnBurnAddr();
    const auto number =
        std::find_if(goods_.numbers.begin(), goods_.numbers.end(), [&](const std::string& sn) {
            return flash.holds(address, std::vector<std::uint8_t>(sn.begin(), sn.end()));
        });
    const std::string sn = number != goods_.numbers.end() ? *number : std::string();
    const QString numberText =
        sn.empty() ? QString() : QStringLiteral("，SN=") + QString::fromStdString(sn);
    if (goods_.package.isIn(flash, sn, address))
        return QStringLiteral("示例固件完整") + numberText;
    return QStringLiteral("已写入 %1 KiB").arg(bytes / 1024) + numberText;
}

}  // namespace simulator
