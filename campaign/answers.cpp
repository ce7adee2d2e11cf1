#include "campaign/answers.h"

#include <QRegularExpression>
#include <utility>

namespace campaign {

Answers::Answers(Dice& dice) : dice_(dice) {
    substitutePrompts(this);
}

Answers::~Answers() {
    substitutePrompts(nullptr);
}

bool Answers::showBox(QWidget* /*parent*/, const QString& text, const QString& /*caption*/,
                      BoxType type) {
    static const QRegularExpression digits(QStringLiteral("[0-9]+"));
    ++boxes_[QString(text).replace(digits, QStringLiteral("#"))];
    return type != BoxType::kWarningOkCancel || dice_.chance(70);
}

std::optional<QString> Answers::chooseFile(QWidget* /*parent*/, const QString& /*filter*/) {
    return std::exchange(path_, std::nullopt);
}

}  // namespace campaign
