// What every test of the window starts from: an empty current directory, the settings of a first
// start, and nobody but the test to answer boxes.
#pragma once

#include <gtest/gtest.h>

#include "storage/globalstorage.h"
#include "support/scriptedprompts.h"
#include "support/temporarydirectory.h"
#include "utils/text.h"

class FirstStartFixture : public testing::Test {
  protected:
    FirstStartFixture() { forgetSettings(); }

    // What the process keeps from earlier.
    void forgetSettings() {
        const GlobalStorage fresh;
        storage_.setSnFilePath(fresh.getSnFilePath());
        storage_.setSnBurnAddr(fresh.getSnBurnAddr());
        storage_.getSnFile().startAfresh();
    }

    ~FirstStartFixture() override { EXPECT_EQ(prompts_.takeBoxes(), std::vector<Box>()); }

    // As the boxes with the caption "提示" and a warning are.
    static Box notice(const char* text) {
        return {QString::fromUtf8(text), QStringLiteral("提示"), BoxType::kWarning};
    }

    EnteredDirectory directory_;
    ScriptedPrompts prompts_;
    GlobalStorage& storage_ = GlobalStorage::getInstance();
};
