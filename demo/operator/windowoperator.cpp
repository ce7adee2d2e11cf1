#include "demo/operator/windowoperator.h"

#include <QAbstractButton>
#include <QAction>
#include <QCoreApplication>
#include <QInputMethodEvent>
#include <QLabel>
#include <QMenuBar>
#include <QProgressBar>
#include <QTabBar>
#include <QTest>
#include <algorithm>

namespace simulator {
namespace {

constexpr int kFirstTileIds[] = {10000, 11000};  // of the USB page and the serial page
constexpr int kControlsOfATile = 4;
constexpr int kTiles = 16;

template <typename Control>
Control* visible(const QWidget& window, const std::function<bool(const Control&)>& fits) {
    for (Control* const control : window.findChildren<Control*>()) {
        if (control->isVisible() && fits(*control))
            return control;
    }
    return nullptr;
}

QAbstractButton* buttonOf(const QWidget& window, const QString& text) {
    return visible<QAbstractButton>(
        window, [&](const QAbstractButton& button) { return button.text() == text; });
}

// The control of a tile, counted from the tile's first one; null while it cannot be seen.
template <typename Control>
Control* ofTile(const QWidget& window, int tile, int control) {
    for (const int first : kFirstTileIds) {
        const QString id = QString::number(first + tile * kControlsOfATile + control);
        if (Control* const found = visible<Control>(
                window, [&](const Control& candidate) { return candidate.objectName() == id; }))
            return found;
    }
    return nullptr;
}

void click(QWidget* widget, QPoint at) {
    QTest::mouseClick(widget, Qt::LeftButton, Qt::NoModifier, at);
}

}  // namespace

bool WindowOperator::press(const QString& text) {
    if (QAbstractButton* const button = buttonOf(window_, text)) {
        if (!button->isEnabled())
            return false;
        click(button, button->rect().center());
        return true;
    }
    for (QTabBar* const tabs : window_.findChildren<QTabBar*>()) {
        for (int i = 0; i < tabs->count(); ++i) {
            if (tabs->tabText(i) != text)
                continue;
            click(tabs, tabs->tabRect(i).center());
            return true;
        }
    }
    for (QMenuBar* const menu : window_.findChildren<QMenuBar*>()) {
        for (QAction* const action : menu->actions()) {
            if (action->text() != text || !action->isEnabled())
                continue;
            click(menu, menu->actionGeometry(action).center());
            return true;
        }
    }
    return false;
}

bool WindowOperator::isEnabled(const QString& text) const {
    const QAbstractButton* const button = buttonOf(window_, text);
    return button != nullptr && button->isEnabled();
}

QLineEdit* WindowOperator::edit(const QString& name) const {
    return visible<QLineEdit>(window_,
                              [&](const QLineEdit& edit) { return edit.accessibleName() == name; });
}

bool WindowOperator::type(QLineEdit* into, const QString& text) const {
    if (into == nullptr || !into->isEnabled() || into->isReadOnly())
        return false;
    into->setFocus();
    QTest::keyClick(into, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(into, Qt::Key_Delete);
    if (std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x80; })) {
        QTest::keyClicks(into, text);
    } else {  // as an input method does
        QInputMethodEvent typed;
        typed.setCommitString(text);
        QCoreApplication::sendEvent(into, &typed);
    }
    return true;
}

bool WindowOperator::canRead(const QString& text) const {
    return visible<QLabel>(window_, [&](const QLabel& label) { return label.text() == text; }) !=
           nullptr;
}

std::vector<TileView> WindowOperator::tiles() const {
    std::vector<TileView> views;
    for (int i = 0; i < kTiles; ++i) {
        const auto* const name = ofTile<QLineEdit>(window_, i, 0);
        const auto* const tag = ofTile<QLineEdit>(window_, i, 1);
        const auto* const bar = ofTile<QProgressBar>(window_, i, 2);
        const auto* const status = ofTile<QLabel>(window_, i, 3);
        if (name != nullptr && bar != nullptr && status != nullptr)
            views.push_back({name->text(), tag != nullptr ? tag->text() : QString(), status->text(),
                             bar->value(), bar->isEnabled() && status->isEnabled()});
    }
    return views;
}

TileView WindowOperator::tileNamed(const QString& end) const {
    for (const TileView& tile : tiles()) {
        if (tile.name.endsWith(end))
            return tile;
    }
    return {};
}

int WindowOperator::tileNumber(const QString& name) const {
    const std::vector<TileView> views = tiles();
    for (std::size_t i = 0; i < views.size(); ++i) {
        if (views[i].name == name)
            return static_cast<int>(i);
    }
    return -1;
}

bool WindowOperator::typeTag(int number, const QString& tag) const {
    return type(ofTile<QLineEdit>(window_, number, 1), tag);
}

bool WindowOperator::waitFor(const std::function<bool()>& condition, int limitMs) {
    return QTest::qWaitFor(condition, limitMs);
}

}  // namespace simulator
