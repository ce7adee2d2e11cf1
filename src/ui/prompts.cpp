#include "ui/prompts.h"

#include <QDir>
#include <QFileDialog>
#include <QGuiApplication>
#include <QMessageBox>

#include "ui/filecolumns.h"

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
        const QString start = QDir(lastDirectory_).exists() ? lastDirectory_ : QDir::currentPath();
        QFileDialog dialog(parent, {}, start, filter);
        // The desktop's own dialog would speak the desktop's language.
        dialog.setOption(QFileDialog::DontUseNativeDialog);
        dialog.setFileMode(QFileDialog::ExistingFile);
        dialog.setProxyModel(new FileColumns(&dialog));
        if (dialog.exec() != QDialog::Accepted)
            return std::nullopt;
        QString path = dialog.selectedFiles().value(0);
        lastDirectory_ = QFileInfo(path).path();
        return path;
    }

  private:
    QString lastDirectory_ = QStringLiteral(".");
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
