// Answers the window's boxes and file dialogs in the operator's place and keeps what was asked. A
// question that no test expects fails it.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include "ui/prompts.h"

struct Box {
    QString text;
    QString caption;
    BoxType type = BoxType::kPlain;

    bool operator==(const Box&) const = default;
};

inline void PrintTo(const Box& box, std::ostream* out) {
    *out << box.caption.toStdString() << ": " << box.text.toStdString() << " ("
         << static_cast<int>(box.type) << ")";
}

// In force for as long as it lives.
class ScriptedPrompts final : public Prompts {
  public:
    ScriptedPrompts() { substitutePrompts(this); }
    ~ScriptedPrompts() { substitutePrompts(nullptr); }
    ScriptedPrompts(const ScriptedPrompts&) = delete;
    ScriptedPrompts& operator=(const ScriptedPrompts&) = delete;

    // The answer to the next question of OK and Cancel. Boxes with nothing but OK need none.
    void answer(bool ok) { answers_.push_back(ok); }
    // The path for the next file dialog; nothing cancels it.
    void choose(std::optional<QString> path) { paths_.push_back(std::move(path)); }

    // Runs in each box while it is open.
    std::function<void()> whileOpen = [] {};

    // The boxes and the dialogs' filters since the last call.
    std::vector<Box> takeBoxes() { return std::exchange(boxes_, {}); }
    std::vector<QString> takeFilters() { return std::exchange(filters_, {}); }

    bool showBox(QWidget* parent, const QString& text, const QString& caption,
                 BoxType type) override {
        EXPECT_NE(parent, nullptr);
        boxes_.push_back({text, caption, type});
        const auto act = whileOpen;  // which may put another in its place
        act();
        if (type != BoxType::kWarningOkCancel)
            return true;
        if (answers_.empty()) {
            ADD_FAILURE() << "unexpected question: " << text.toStdString();
            return false;
        }
        const bool ok = answers_.front();
        answers_.pop_front();
        return ok;
    }

    std::optional<QString> chooseFile(QWidget* parent, const QString& filter) override {
        EXPECT_NE(parent, nullptr);
        filters_.push_back(filter);
        if (paths_.empty()) {
            ADD_FAILURE() << "unexpected file dialog: " << filter.toStdString();
            return std::nullopt;
        }
        std::optional<QString> path = std::move(paths_.front());
        paths_.pop_front();
        return path;
    }

  private:
    std::deque<bool> answers_;
    std::deque<std::optional<QString>> paths_;
    std::vector<Box> boxes_;
    std::vector<QString> filters_;
};
