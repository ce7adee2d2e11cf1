// One page of the main window's tabbed container.
#pragma once

#include <QString>
#include <QWidget>
#include <utility>

// All on the user-interface thread.
class Page : public QWidget {
  public:
    // Size of every page, in dialog units of the font that the page's template names.
    static constexpr int kWidth = 550;
    static constexpr int kHeight = 330;
    static constexpr int kFontPoints = 9;

    explicit Page(QString caption) : caption_(std::move(caption)) {}

    const QString& caption() const { return caption_; }

    // Makes the controls; called once, before the page comes to the front for the first time.
    virtual void OnInitDialog() = 0;
    // Whether the page could come to the front; false refuses, before the page in front has been
    // asked to leave: it stays as it is.
    virtual bool mayComeToFront() { return true; }
    // The page is about to come to the front; false refuses, and the page before it stays.
    virtual bool OnSetActive() { return true; }
    // The page is about to leave the front; false keeps it there.
    virtual bool OnKillActive() { return true; }

  private:
    const QString caption_;
};
