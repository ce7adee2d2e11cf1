// What the tests of both loaders start from: a context with its peer, an image in a directory of
// its own, and ears for what the loader tells.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "scriptedpeer.h"
#include "support/helpers.h"
#include "support/temporarydirectory.h"

struct ToldError {
    int code;
    std::wstring description;
    bool operator==(const ToldError&) const = default;
};

// A step of a loader: what the trace tells of each failure, and the operator of refusals that have
// ended it.
struct Step {
    UartCommand command;
    const char* silent;
    const char* refused;
    ToldError error{};
};

class LoaderFixture : public testing::Test {
  protected:
    explicit LoaderFixture(std::string imagePath) : imagePath_(std::move(imagePath)) {
        context_->user = this;
        context_->onProgress = [](UartContext* context, const std::wstring& name, int percent) {
            auto& test = *static_cast<LoaderFixture*>(context->user);
            test.percents.push_back(percent);
            test.progressName = name;
        };
        context_->onError = [](UartContext* context, int code, const std::wstring& description) {
            static_cast<LoaderFixture*>(context->user)->errors.push_back({code, description});
        };
    }

    void giveImage(std::size_t size) {
        image_.resize(size);
        for (std::size_t i = 0; i < size; ++i)
            image_[i] = static_cast<char>(i * 11 + i / 256);
        writeContent(imagePath_, image_);
    }

    // One operation of the loader, with what it tells; it leaves no file open.
    template <typename Operation>
    int run(Operation operation) {
        errors.clear();
        percents.clear();
        testing::internal::CaptureStderr();
        const int result = operation();
        trace_ = testing::internal::GetCapturedStderr();
        EXPECT_EQ(context_->ram.image.stream, nullptr);
        EXPECT_EQ(context_->flash.image.stream, nullptr);
        return result;
    }

    // How often the trace tells it.
    std::size_t told(const std::string& text) const { return occurrences(trace_, text); }

    // The operator's stop comes while that command is on the wire.
    void stopAt(UartCommand command) {
        peer_.onRequest = [this, command](const SeenRequest& request) {
            context_->stop = context_->stop || request.command == command;
        };
    }

    // What the callbacks of the context have told.
    std::vector<ToldError> errors;
    std::vector<int> percents;
    std::wstring progressName;

    EnteredDirectory directory_;
    const std::string imagePath_;
    std::string image_;
    std::string trace_;
    std::unique_ptr<UartContext> context_ = uart_context_create();
    ScriptedPeer peer_{*context_};
};
