// What the program asks the operator: message boxes and the choice of a file. A test or the demo
// puts answers of its own in the operator's place.
#pragma once

#include <QString>
#include <QWidget>
#include <optional>

// The values name button set and icon.
enum class BoxType {
    kPlain = 0,               // OK
    kWarning = 0x30,          // OK, with a warning icon
    kWarningOkCancel = 0x31,  // OK and Cancel, with a warning icon
};

// All on the user-interface thread. The calls return when the operator has answered; the window
// lives on meanwhile.
class Prompts {
  public:
    // True for OK. An empty caption gives the program's name.
    virtual bool showBox(QWidget* parent, const QString& text, const QString& caption,
                         BoxType type) = 0;

    // Path of an existing file that fits the filter, as in "SN文件(*.csv)"; nothing if the operator
    // cancels. Leaves the current directory as it is.
    virtual std::optional<QString> chooseFile(QWidget* parent, const QString& filter) = 0;

  protected:
    ~Prompts() = default;
};

// The ones in force: boxes and dialogs on the screen, unless substituted.
Prompts& prompts();

// Null goes back to the screen. The substitute must outlive its use.
void substitutePrompts(Prompts* substitute);
