// The tabbed container of the main window. A page comes to the front only if the page before it
// lets go and the new one accepts, whether a tab was clicked or a button asks for the page.
#pragma once

#include <QStackedWidget>
#include <QTabBar>
#include <QWidget>
#include <vector>

#include "ui/page.h"

class PageSheet final : public QWidget {
  public:
    PageSheet();

    // The sheet shows the page but does not own it.
    void addPage(Page* page);

    // Asks the page at the front and then the one at `index`; false, and nothing moves, if one
    // refuses: the page at the front is then as it was before. While one is being asked, nothing
    // else moves.
    bool setActivePage(int index);
    // -1 while no page has been at the front.
    int activePage() const { return active_; }

  private:
    struct Entry {
        Page* page;
        bool initialised;
    };

    Entry& at(int index) { return pages_.at(static_cast<std::size_t>(index)); }
    bool exchange(int index);
    void markActiveTab();

    QTabBar* tabs_;
    QStackedWidget* stack_;
    std::vector<Entry> pages_;
    int active_ = -1;
    bool asking_ = false;
};
