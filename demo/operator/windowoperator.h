// Works the program's window as a person does: presses what can be seen, types, and reads the
// tiles. For the demo, the tests and the benchmarks.
#pragma once

#include <QLineEdit>
#include <QString>
#include <QWidget>
#include <functional>
#include <vector>

namespace simulator {

// What one tile shows.
struct TileView {
    QString name;
    QString tag;  // empty on the serial page, whose tiles have none
    QString status;
    int percent = 0;
    bool active = false;
};

// All on the user-interface thread. What looks for a control takes only what an operator could see.
class WindowOperator {
  public:
    explicit WindowOperator(QWidget& window) : window_(window) {}

    // Clicks the button, menu entry or tab of that text. False if there is none or it is disabled.
    bool press(const QString& text);
    bool isEnabled(const QString& text) const;

    // The edit of that accessible name; null if there is none.
    QLineEdit* edit(const QString& name) const;
    // Puts the text in place of what the edit holds. False if it cannot be typed there.
    bool type(QLineEdit* into, const QString& text) const;

    // Whether the text stands on some label.
    bool canRead(const QString& text) const;

    // The tiles in their order; empty while no tile can be seen.
    std::vector<TileView> tiles() const;
    // The tile whose name ends with the text, such as a port; one without a name if there is none.
    TileView tileNamed(const QString& end) const;
    // The number of the tile of just that name, from 0 on; -1 if there is none.
    int tileNumber(const QString& name) const;
    // Types a label into the tile of that number.
    bool typeTag(int number, const QString& tag) const;

    // Lets the window live until the condition holds. False after `limitMs`.
    static bool waitFor(const std::function<bool()>& condition, int limitMs = 30'000);

  private:
    QWidget& window_;
};

}  // namespace simulator
