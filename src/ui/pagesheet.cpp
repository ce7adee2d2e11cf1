#include "ui/pagesheet.h"

#include <QSignalBlocker>
#include <QVBoxLayout>
#include <QWheelEvent>

namespace {

// One notch of the wheel, on its way over the tabs, must not ask to stop a burn.
class Tabs final : public QTabBar {
    void wheelEvent(QWheelEvent* event) override { event->ignore(); }
};

}  // namespace

PageSheet::PageSheet() : tabs_(new Tabs), stack_(new QStackedWidget) {
    tabs_->setExpanding(false);
    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(tabs_);
    layout->addWidget(stack_);
    QObject::connect(tabs_, &QTabBar::currentChanged, this, [this](int index) {
        // The tab of the page at the front stays the marked one until both pages have agreed.
        markActiveTab();
        setActivePage(index);
    });
}

void PageSheet::addPage(Page* page) {
    const QSignalBlocker blocker(tabs_);
    pages_.push_back({page, false});
    stack_->addWidget(page);
    tabs_->addTab(page->caption());
}

bool PageSheet::setActivePage(int index) {
    if (asking_)
        return false;
    if (index == active_)
        return true;
    asking_ = true;
    const bool moved = exchange(index);
    asking_ = false;
    markActiveTab();
    return moved;
}

bool PageSheet::exchange(int index) {
    if (active_ >= 0 && !at(active_).page->OnKillActive())
        return false;
    Entry& next = at(index);
    if (!next.initialised)
        next.page->OnInitDialog();
    next.initialised = true;
    if (!next.page->OnSetActive())
        return false;
    if (active_ >= 0)
        at(active_).page->OnLeft();
    active_ = index;
    stack_->setCurrentIndex(index);
    return true;
}

void PageSheet::markActiveTab() {
    const QSignalBlocker blocker(tabs_);
    tabs_->setCurrentIndex(active_);
}
