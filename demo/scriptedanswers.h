// Answers the window's boxes and file dialogs in the operator's place, exactly as the demo expects
// them to come: these, in this order, and no others.
#pragma once

#include <QString>
#include <deque>
#include <string>
#include <vector>

#include "ui/prompts.h"

namespace simulator {

// In force for as long as it lives.
class ScriptedAnswers final : public Prompts {
  public:
    ScriptedAnswers();
    ~ScriptedAnswers();
    ScriptedAnswers(const ScriptedAnswers&) = delete;
    ScriptedAnswers& operator=(const ScriptedAnswers&) = delete;

    // What comes next, and the answer to it.
    void expectFile(const QString& filter, const QString& path);
    void expectBox(const QString& caption, const QString& text, BoxType type, bool ok = true);

    // What came unexpectedly, was answered with Cancel, or has not come.
    std::vector<std::string> complaints() const;

    bool showBox(QWidget* parent, const QString& text, const QString& caption,
                 BoxType type) override;
    std::optional<QString> chooseFile(QWidget* parent, const QString& filter) override;

  private:
    struct Expected {
        QString question;
        QString path;
        bool ok = true;
    };

    // The answer to the question if it is the next one; otherwise a complaint.
    std::optional<Expected> answerTo(const QString& question);

    std::deque<Expected> expected_;
    std::vector<std::string> complaints_;
};

}  // namespace simulator
