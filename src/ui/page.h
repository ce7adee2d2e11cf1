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
    static constexpr double kFontPoints = 9;

    explicit Page(QString caption) : caption_(std::move(caption)) {}

    const QString& caption() const { return caption_; }

    // For a screen on which the template's font would be too large. To be called before the
    // controls are made.
    void setFontPoints(double points) { fontPoints_ = points; }

    // Makes the controls; called once, before the page comes to the front for the first time.
    virtual void OnInitDialog() = 0;
    // The page is about to come to the front; false refuses, and the page before it stays.
    virtual bool OnSetActive() { return true; }
    // Whether the page lets another one come to the front; false keeps it there. What it gives up
    // then waits for OnLeft, as the other one may still refuse.
    virtual bool OnKillActive() { return true; }
    // The other page has accepted, and this one leaves the front.
    virtual void OnLeft() {}

  protected:
    double fontPoints() const { return fontPoints_; }

  private:
    const QString caption_;
    double fontPoints_ = kFontPoints;
};
