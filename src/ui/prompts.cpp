#include "ui/prompts.h"

#include <QFileDialog>
#include <QGuiApplication>
#include <QMessageBox>

namespace {

class ScreenPrompts final : public Prompts {
  public:
    bool showBox(QWidget* parent, const QString& text, const QString& caption,
                 BoxType type) override {
        QMessageBox box(parent);
        box.setWindowTitle(caption.isEmpty() ? QGuiApplication::applicationDisplayName() : caption);
        box.setTextFormat(Qt::PlainText);
        box.setText(text);
        box.setIcon(type == BoxType::kPlain ? QMessageBox::NoIcon : QMessageBox::Warning);
        box.setStandardButtons(type == BoxType::kWarningOkCancel
                                   ? QMessageBox::Ok | QMessageBox::Cancel
                                   : QMessageBox::Ok);
        box.setDefaultButton(QMessageBox::Ok);
        return box.exec() == QMessageBox::Ok;
    }

    std::optional<QString> chooseFile(QWidget* parent, const QString& filter) override {
        const QString path = QFileDialog::getOpenFileName(parent, {}, {}, filter);
        return path.isEmpty() ? std::nullopt : std::optional(path);
    }
};

ScreenPrompts screenPrompts;
Prompts* substitutedPrompts = nullptr;

}  // namespace

Prompts& prompts() {
    return substitutedPrompts != nullptr ? *substitutedPrompts : screenPrompts;
}

void substitutePrompts(Prompts* substitute) {
    substitutedPrompts = substitute;
}
