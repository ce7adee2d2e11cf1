// Answers the window's boxes and file dialogs as an operator in a hurry does, and counts the boxes.
#pragma once

#include <QMap>
#include <QString>
#include <optional>

#include "campaign/dice.h"
#include "ui/prompts.h"

namespace campaign {

// In force for as long as it lives.
class Answers final : public Prompts {
  public:
    explicit Answers(Dice& dice);
    ~Answers();
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    // For the next file dialog.
    void choose(const QString& path) { path_ = path; }

    // How often each text was shown; digits count as one another.
    const QMap<QString, int>& boxes() const { return boxes_; }

    int shown(const QString& text) const { return boxes_.value(text); }

    bool showBox(QWidget* parent, const QString& text, const QString& caption,
                 BoxType type) override;
    std::optional<QString> chooseFile(QWidget* parent, const QString& filter) override;

  private:
    Dice& dice_;
    std::optional<QString> path_;
    QMap<QString, int> boxes_;
};

}  // namespace campaign
