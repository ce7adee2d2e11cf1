#include "vorlan/firmware/burncfg.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/temporarydirectory.h"

namespace {

class BurnCfgTest : public testing::Test {
  protected:
    BurnCfgTest() { directory_.enter(); }

    using Load = BurnCfg::Load;

    Load tryLoad(const std::string& content) {
        writeContent("burn.cfg", content);
        return cfg_.load(L".\\burn.cfg");
    }

    bool load(const std::string& content) { return tryLoad(content) == Load::kLoaded; }

    TemporaryDirectory directory_;
    BurnCfg cfg_;
};

}  // namespace

TEST_F(BurnCfgTest, AnswersForTheFirstOfAName) {
    ASSERT_TRUE(
        load("{\"burn_items\":[\r\n"
             R"({"name":"b.bin","addr":"0x200"},{"addr":"100","name":"a.bin"},)"
             R"({"name":"b.bin","addr":"300","more":1}]})"));
    EXPECT_EQ(cfg_.getAddr(L"b.bin"), 0x200U);
    EXPECT_EQ(cfg_.getAddr(L"B.bin"), BurnCfg::kNoAddress);
    cfg_.markUsed(L"b.bin");
    cfg_.markUsed(L"unknown");
    std::vector<unsigned> used;
    for (const BurnItem& item : cfg_.getItems())
        used.push_back(item.used);
    EXPECT_EQ(used, (std::vector<unsigned>{1, 0, 0}));
    cfg_.clear();
    EXPECT_TRUE(cfg_.getItems().empty());
}

TEST_F(BurnCfgTest, ReadsAddressesAsHexadecimalOnThirtyTwoBits) {
    const std::pair<const char*, std::uint32_t> addresses[] = {
        {"200000", 0x200000},
        {"0X7fF000", 0x7FF000},
        {"  +10 rest", 0x10},
        {"12g4", 0x12},
        {"", 0},
        {"zero", 0},
        {"-10", 0xFFFFFFF0},
        {"-1", BurnCfg::kNoAddress},
        {"80000000", 0x7FFFFFFF},
        {"FFFFFFFFFFFFFFFFFFFF", 0x7FFFFFFF},
        {"-FFFFFFFFFFFFFFFFFFFF", 0x80000000},
    };
    for (const auto& [text, address] : addresses) {
        ASSERT_TRUE(load(std::string(R"({"burn_items":[{"name":"x","addr":")") + text + "\"}]}"));
        EXPECT_EQ(cfg_.getItems().at(0).addr, address) << text;
    }
}

TEST_F(BurnCfgTest, SkipsWhatIsIncompleteAndTakesKeysInAnyCase) {
    ASSERT_TRUE(load(R"({"BURN_Items":[{"name":"a"},{"addr":"1"},7,null,"text",[],)"
                     R"({"Name":"b","ADDR":"2"},{"name":"c","addr":4096},)"
                     R"({"name":3,"addr":"5"}]})"));
    const auto items = cfg_.getItems();
    ASSERT_EQ(items.size(), 3U);
    EXPECT_EQ(items[0].file, L"b");
    EXPECT_EQ(items[0].addr, 2U);
    EXPECT_EQ(items[1].file, L"c");
    EXPECT_EQ(items[1].addr, 0U);  // only text is an address
    EXPECT_EQ(items[2].file, L"");

    ASSERT_TRUE(load("{\"burn_items\":[{\"name\":\"\xE5\x9B\xBA\xFF.bin\",\"addr\":\"1\"}]}"));
    EXPECT_EQ(cfg_.getItems().at(0).file, L"\u56FA\uFFFD.bin");
}

TEST_F(BurnCfgTest, KeepsItsListUnlessTheFileIsJson) {
    ASSERT_TRUE(load(R"({"burn_items":[{"name":"a","addr":"1"}]})"));
    for (const std::string& content :
         {std::string(), std::string("burn_items"), std::string("{\"burn_items\":["),
          std::string("\0{}", 3), std::string(5000, '[')}) {
        EXPECT_EQ(tryLoad(content), Load::kNoJson) << content.substr(0, 20);
        EXPECT_EQ(cfg_.getItems().size(), 1U);
    }
    // What such a file says nobody knows.
    EXPECT_EQ(cfg_.load(L".\\missing.cfg"), Load::kUnreadable);
    EXPECT_EQ(cfg_.load(L".\\"), Load::kUnreadable);
    EXPECT_EQ(tryLoad(std::string((16 << 20) - 1, ' ') + "{}"), Load::kUnreadable);
    EXPECT_EQ(cfg_.getItems().size(), 1U);
    EXPECT_EQ(tryLoad(std::string((16 << 20) - 2, ' ') + "{}"), Load::kLoaded);
    EXPECT_TRUE(cfg_.getItems().empty());

    // These are JSON, and list nothing.
    for (const char* content :
         {"{}", "[]", "5", "null", R"("burn_items")", R"({"burn_items":null})",
          R"({"burn_items":"x"})", R"({"burn_items":5})",
          R"([{"burn_items":[{"name":"a","addr":"1"}]}])"}) {
        ASSERT_TRUE(load(R"({"burn_items":[{"name":"a","addr":"1"}]})"));
        EXPECT_TRUE(load(content)) << content;
        EXPECT_TRUE(cfg_.getItems().empty()) << content;
    }
}

TEST_F(BurnCfgTest, ReadsALongListInReasonableTime) {
    std::string content = "{\"burn_items\":[";
    while (content.size() < 1'000'000)
        content += "{},";
    ASSERT_TRUE(load(content + R"({"name":"last","addr":"9"}]})"));
    EXPECT_EQ(cfg_.getAddr(L"last"), 9U);
}
