#include "demo/scriptedanswers.h"

#include <utility>

namespace simulator {
namespace {

QString boxAsText(const QString& caption, const QString& text, BoxType type) {
    return QStringLiteral("box of type 0x%1, %2: %3")
        .arg(QString::number(static_cast<int>(type), 16), caption, text);
}

QString dialogAsText(const QString& filter) {
    return QStringLiteral("choice of a file, %1").arg(filter);
}

}  // namespace

ScriptedAnswers::ScriptedAnswers() {
    substitutePrompts(this);
}

ScriptedAnswers::~ScriptedAnswers() {
    substitutePrompts(nullptr);
}

void ScriptedAnswers::expectFile(const QString& filter, const QString& path) {
    expected_.push_back({dialogAsText(filter), path});
}

void ScriptedAnswers::expectBox(const QString& caption, const QString& text, BoxType type,
                                bool ok) {
    expected_.push_back({boxAsText(caption, text, type), {}, ok});
}

std::vector<std::string> ScriptedAnswers::complaints() const {
    std::vector<std::string> complaints = complaints_;
    for (const Expected& missing : expected_)
        complaints.push_back("did not come: " + missing.question.toStdString());
    return complaints;
}

bool ScriptedAnswers::showBox(QWidget* /*parent*/, const QString& text, const QString& caption,
                              BoxType type) {
    const std::optional<Expected> answer = answerTo(boxAsText(caption, text, type));
    return answer && answer->ok;
}

std::optional<QString> ScriptedAnswers::chooseFile(QWidget* /*parent*/, const QString& filter) {
    const std::optional<Expected> answer = answerTo(dialogAsText(filter));
    return answer ? std::optional(answer->path) : std::nullopt;
}

std::optional<ScriptedAnswers::Expected> ScriptedAnswers::answerTo(const QString& question) {
    if (expected_.empty() || expected_.front().question != question) {
        complaints_.push_back("unexpected: " + question.toStdString());
        return std::nullopt;
    }
    Expected answer = std::move(expected_.front());
    expected_.pop_front();
    return answer;
}

}  // namespace simulator
