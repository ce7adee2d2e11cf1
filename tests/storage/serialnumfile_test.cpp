#include "storage/serialnumfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "storage/snreservation.h"
#include "support/recordinglog.h"
#include "support/temporarydirectory.h"
#include "utils/interruption.h"
#include "utils/text.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

class SerialNumFileTest : public testing::Test {
  protected:
    static constexpr const char* kName = "sn.csv";

    bool load(const std::string& content) {
        directory_.write(kName, content);
        return file_.load(path());
    }
    std::wstring path(const std::string& name = kName) const {
        return text::widen((directory_.path() / name).string());
    }
    std::string content() const { return directory_.read(kName); }

    // The number that is handed out next, "-" if there is none. The number stays taken.
    std::string next() {
        const SerialNumFile::SnRecord* const record = file_.takeNext();
        return record != nullptr ? record->sn : "-";
    }

    TemporaryDirectory directory_;
    RecordingLog log_;
    SerialNumFile file_;
};

}  // namespace

TEST_F(SerialNumFileTest, HandsOutFreeNumbersInTheOrderOfTheFile) {
    EXPECT_EQ(file_.isLoaded(), 0);
    EXPECT_EQ(next(), "-");
    const struct {
        std::string rows;
        std::vector<std::string> free;
    } files[] = {
        {"A,0\r\nB,1\r\nC,0\r\n", {"A", "C"}},
        {"\r\nABC,0\r\n\r\n\r\nD,0\r\n\r\n", {"ABC", "D"}},
        // Rows that are neither free nor burned are kept as they stand.
        {"A,\r\nB, 0\r\nC,0 \r\nD,00\r\nE,2\r\nF,0\r\r\nG,\"0\"\r\n,\r\n H ,0\r\nI,0\r", {" H "}},
        {"", {}},
    };
    for (const auto& [rows, free] : files) {
        ASSERT_TRUE(load(rows));
        EXPECT_EQ(file_.isLoaded(), 1);
        for (const std::string& number : free)
            EXPECT_EQ(next(), number);
        EXPECT_EQ(next(), "-");
    }
}

TEST_F(SerialNumFileTest, ReleasedNumbersComeAgainLowestFirst) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\nC,0\r\nD,0\r\n"));
    auto* const a = file_.takeNext();
    auto* const b = file_.takeNext();
    auto* const c = file_.takeNext();
    file_.releaseRecord(c);
    file_.releaseRecord(a);
    file_.releaseRecord(a);  // a second time changes nothing
    file_.releaseRecord(nullptr);
    EXPECT_EQ(file_.takeNext(), a);
    EXPECT_EQ(a->taken, 1U);
    EXPECT_EQ(next(), "C");
    EXPECT_EQ(next(), "D");
    EXPECT_EQ(next(), "-");
    file_.releaseRecord(b);
    EXPECT_EQ(next(), "B");
    file_.releaseRecord(a);
    file_.releaseRecord(c);
    EXPECT_EQ(next(), "A");
}

TEST_F(SerialNumFileTest, ANumberGoesBackWithItsLastHolder) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\nC,0\r\n"));
    {
        SnReservation number(file_);
        EXPECT_EQ(number.sn(), "A");
        number = SnReservation(file_);
        EXPECT_EQ(number.sn(), "B");
        EXPECT_EQ(next(), "A");
        EXPECT_EQ(next(), "C");
        EXPECT_FALSE(SnReservation(file_));
    }
    SnReservation burned(file_);
    EXPECT_EQ(burned.sn(), "B");
    EXPECT_THAT(burned.markBurned(), IsEmpty());
    EXPECT_FALSE(burned);
    EXPECT_EQ(content(), "A,0\r\nB,1\r\nC,0\r\n");
}

TEST_F(SerialNumFileTest, BurnedNumbersNeverComeAgain) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\nC,0\r\n"));
    auto* const a = file_.takeNext();
    auto* const b = file_.takeNext();
    file_.markBurned(a);
    file_.releaseRecord(a);
    file_.releaseRecord(b);
    file_.markBurned(b);  // given back and burned all the same
    EXPECT_EQ(next(), "C");
    EXPECT_EQ(next(), "-");
    EXPECT_EQ(content(), "A,1\r\nB,1\r\nC,0\r\n");
    EXPECT_THAT(log_.take(hj::kError), IsEmpty());
}

TEST_F(SerialNumFileTest, MarkChangesOneByte) {
    const std::string before = "title,row\r\n\r\nA,0\r\nB,1\r\n,0\r\n\x80\xFF,0\r\nZ,0\r\n";
    ASSERT_TRUE(load(before));
    for (const char* const number : {"A", "", "\x80\xFF", "Z"}) {
        auto* const record = file_.takeNext();
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->sn, number);
        std::string expected = content();
        expected[record->offset + record->sn.size() + 1] = '1';
        file_.markBurned(record);
        EXPECT_EQ(content(), expected);
    }
    EXPECT_EQ(content(), "title,row\r\n\r\nA,1\r\nB,1\r\n,1\r\n\x80\xFF,1\r\nZ,1\r\n");
    file_.markBurned(nullptr);
}

TEST_F(SerialNumFileTest, MarkCompletesALastRowWithoutLineEnd) {
    ASSERT_TRUE(load("A,0\r\nB,0"));
    auto* const a = file_.takeNext();
    file_.markBurned(file_.takeNext());
    EXPECT_EQ(content(), "A,0\r\nB,1\r\n");
    file_.markBurned(a);
    EXPECT_EQ(content(), "A,1\r\nB,1\r\n");
}

TEST_F(SerialNumFileTest, RowsMayLieAnywhereInALargeFile) {
    // Rows of many lengths, so that they fall across the blocks of any reader.
    std::string rows;
    std::vector<std::size_t> offsets;
    for (std::size_t i = 0; rows.size() < 2'000'000; ++i) {
        offsets.push_back(rows.size());
        rows += std::string(i % 97, 's') + std::to_string(i) + ",0\r\n";
    }
    const std::string longNumber(700'000, 'L');
    offsets.push_back(rows.size());
    rows += longNumber + ",0\r\nlast,0\r\n";
    ASSERT_TRUE(load(rows));
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        const auto* const record = file_.takeNext();
        ASSERT_NE(record, nullptr);
        ASSERT_EQ(record->offset, offsets[i]);
        ASSERT_EQ(rows.compare(offsets[i], record->sn.size() + 4, record->sn + ",0\r\n"), 0);
    }
    EXPECT_EQ(next(), "last");
}

TEST_F(SerialNumFileTest, LineAboveOneMebibyteIsNoRow) {
    const auto rowOf = [](std::size_t size) { return std::string(size - 4, 'n') + ",0\r\n"; };
    constexpr std::size_t kMebibyte = 1 << 20;
    ASSERT_TRUE(load("A,0\r\n" + rowOf(kMebibyte)));
    EXPECT_EQ(next(), "A");
    EXPECT_EQ(next().size(), kMebibyte - 4);
    for (const std::string& rows : {rowOf(kMebibyte + 1) + "A,0\r\n", rowOf(3 * kMebibyte),
                                    std::string(kMebibyte + 1, ',')}) {
        EXPECT_FALSE(load("\r\n" + rows));
        EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr("not two columns in line 2")));
    }
}

TEST_F(SerialNumFileTest, WrongFileOfAnySizeIsRefusedAtItsFirstLine) {
    // 64 GiB without a line feed, then 64 GiB behind a bad line; they take no room on the disk.
    for (const char* const start : {"no row", "A,0\n"}) {
        directory_.write(kName, start);
        fs::resize_file(directory_.path() / kName, std::uintmax_t{64} << 30);
        EXPECT_FALSE(file_.load(path()));
        EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr(" line 1")));
    }
}

TEST_F(SerialNumFileTest, BadLineLeavesNothingLoaded) {
    for (const char* const bad : {"A,0\r\nB\r\n", "A,0\r\nB,0,\r\n", "A,0\nB,0\n", "A,0\r\nB,0\n",
                                  "A,0\r\n\nB,0\r\n", "\n", "A", "SN\r\nA,0\r\n"}) {
        SCOPED_TRACE(testing::PrintToString(bad));
        directory_.write("good.csv", "X,0\r\nY,0\r\n");
        ASSERT_TRUE(file_.load(path("good.csv")));
        auto* const held = file_.takeNext();
        EXPECT_FALSE(load(bad));
        EXPECT_EQ(file_.isLoaded(), 0);
        EXPECT_EQ(next(), "-");
        EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr("sn.csv")));

        // Nothing is marked any more, and whoever holds an old record may still come with it.
        file_.markBurned(held);
        file_.releaseRecord(held);
        EXPECT_EQ(directory_.read("good.csv"), "X,0\r\nY,0\r\n");
        EXPECT_EQ(content(), bad);
        EXPECT_EQ(next(), "-");
    }
}

TEST_F(SerialNumFileTest, FileThatCannotBeOpenedLeavesTheOldOneInUse) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\nC,0\r\n"));
    auto* const a = file_.takeNext();
    fs::create_directory(directory_.path() / "folder.csv");
    EXPECT_FALSE(file_.load(path("missing.csv")));
    EXPECT_FALSE(file_.load(path("folder.csv")));
    EXPECT_FALSE(file_.load(L""));
    EXPECT_EQ(file_.isLoaded(), 1);
    file_.markBurned(a);
    EXPECT_EQ(content(), "A,1\r\nB,0\r\nC,0\r\n");
    EXPECT_EQ(next(), "B");
}

TEST_F(SerialNumFileTest, SecondUserIsRefusedUntilTheFirstLetsGo) {
    ASSERT_TRUE(load("A,0\r\n"));
    directory_.write("other.csv", "X,0\r\n");
    SerialNumFile second;
    ASSERT_TRUE(second.load(path("other.csv")));
    EXPECT_FALSE(second.load(path()));
    EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr("in use by another program")));
    EXPECT_EQ(second.takeNext()->sn, "X");
    file_.closeFile();
    EXPECT_TRUE(second.load(path()));
    EXPECT_EQ(second.takeNext()->sn, "A");
}

TEST_F(SerialNumFileTest, LoadsTheSameFileAgain) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\n"));
    file_.markBurned(file_.takeNext());
    ASSERT_TRUE(file_.load(path()));
    auto* const b = file_.takeNext();
    EXPECT_EQ(b->sn, "B");
    file_.markBurned(b);
    EXPECT_EQ(content(), "A,1\r\nB,1\r\n");

    // It is still locked, once.
    SerialNumFile second;
    EXPECT_FALSE(second.load(path()));
    file_.closeFile();
    EXPECT_TRUE(second.load(path()));
}

TEST_F(SerialNumFileTest, RecordHeldAcrossALoadHarmsNoOtherNumber) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\n"));
    auto* const early = file_.takeNext();
    auto* const given = file_.takeNext();
    directory_.write("new.csv", "M,0\r\nN,0\r\n");
    ASSERT_TRUE(file_.load(path("new.csv")));
    file_.releaseRecord(given);
    file_.markBurned(early);
    EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr("SN=A ")));
    EXPECT_EQ(content(), "A,0\r\nB,0\r\n");
    EXPECT_EQ(next(), "M");
    EXPECT_EQ(next(), "N");
    EXPECT_EQ(next(), "-");
    EXPECT_EQ(directory_.read("new.csv"), "M,0\r\nN,0\r\n");
}

TEST_F(SerialNumFileTest, ClosedOrClearedItDoesNothing) {
    ASSERT_TRUE(load("A,0\r\nB,0\r\n"));
    auto* const a = file_.takeNext();
    file_.closeFile();
    file_.markBurned(a);
    EXPECT_EQ(a->burnFlag, "0");
    EXPECT_EQ(content(), "A,0\r\nB,0\r\n");
    file_.clearRecords();
    EXPECT_EQ(next(), "-");
    EXPECT_THAT(log_.take(hj::kError), IsEmpty());
}

// Someone has been at the file since it was loaded: the mark is not written, the log tells the
// number, and the number is not used any more.
class SerialNumFileChangedTest : public SerialNumFileTest {
  protected:
    static constexpr const char* kOriginal = "A,0\r\nBB,0\r\nC,0";

    void SetUp() override {
        ASSERT_TRUE(load(kOriginal));
        a_ = file_.takeNext();
        bb_ = file_.takeNext();
        c_ = file_.takeNext();
    }

    void expectMarkRefused(SerialNumFile::SnRecord* record) {
        const std::string before = content();
        file_.markBurned(record);
        EXPECT_EQ(content(), before);
        EXPECT_THAT(log_.take(hj::kError), ElementsAre(AllOf(HasSubstr("E/SerialNumFil("),
                                                             HasSubstr("SN=" + record->sn + " "))));
    }

    // None of the numbers is free.
    void expectRefused(SerialNumFile::SnRecord* record) {
        expectMarkRefused(record);
        file_.releaseRecord(record);
        EXPECT_EQ(next(), "-");
    }

    SerialNumFile::SnRecord* a_ = nullptr;
    SerialNumFile::SnRecord* bb_ = nullptr;
    SerialNumFile::SnRecord* c_ = nullptr;
};

// A spreadsheet saves an old copy over the file, and the operator imports it again.
TEST_F(SerialNumFileChangedTest, NumberWhoseMarkWasRefusedIsNotHandedOutAfterALaterLoad) {
    const std::string newRows = "A,0\r\nBB,0\r\nA,0\r\nC,0\r\n";
    directory_.write("new.csv", newRows);
    fs::rename(directory_.path() / "new.csv", directory_.path() / kName);
    expectRefused(a_);
    for (int imports = 0; imports < 2; ++imports) {
        ASSERT_TRUE(file_.load(path()));
        EXPECT_EQ(next(), "BB");
        EXPECT_EQ(next(), "C");
        EXPECT_EQ(next(), "-");
    }
    EXPECT_EQ(content(), newRows);

    ASSERT_TRUE(file_.load(path()));
    file_.markBurned(file_.takeNext());
    EXPECT_EQ(content(), "A,0\r\nBB,1\r\nA,0\r\nC,0\r\n");
}

TEST_F(SerialNumFileChangedTest, NumberBurnedAfterALaterLoadIsNotHandedOutAgain) {
    ASSERT_TRUE(file_.load(path()));
    auto* const given = file_.takeNext();
    EXPECT_EQ(given->sn, "A");
    file_.releaseRecord(given);
    expectMarkRefused(a_);
    expectMarkRefused(bb_);
    EXPECT_EQ(next(), "C");
    EXPECT_EQ(next(), "-");
}

TEST_F(SerialNumFileChangedTest, Moved) {
    fs::rename(directory_.path() / kName, directory_.path() / "moved.csv");
    expectRefused(a_);
    EXPECT_EQ(directory_.read("moved.csv"), kOriginal);
}

// The rows that someone has written, and what marks make of them: only a row that is as it was gets
// its mark.
struct Edit {
    std::string rows;
    std::string marked;
};

class SerialNumFileEditedTest : public SerialNumFileChangedTest,
                                public testing::WithParamInterface<Edit> {};

TEST_P(SerialNumFileEditedTest, RowsThatAreAsTheyWereAreMarkedAndNoOthers) {
    directory_.write(kName, GetParam().rows);
    for (auto* const record : {a_, bb_, c_}) {
        const std::string before = content();
        file_.markBurned(record);
        file_.releaseRecord(record);
        EXPECT_EQ(log_.take(hj::kError).empty(), content() != before) << record->sn;
    }
    EXPECT_EQ(content(), GetParam().marked);
    EXPECT_EQ(next(), "-");
}

INSTANTIATE_TEST_SUITE_P(
    Edits, SerialNumFileEditedTest,
    testing::Values(Edit{"X,0\r\nBB,1\r\nC,0,", "X,0\r\nBB,1\r\nC,0,"},
                    Edit{"A,0\r\nBB,0", "A,1\r\nBB,0"},  // BB was not the last row
                    Edit{"A,0\r\nBB,0\r\nC,0\r\nD,0\r\n", "A,1\r\nBB,1\r\nC,1\r\nD,0\r\n"}));

// A spreadsheet that was open all the time saves its older content in place.
TEST_F(SerialNumFileTest, LostMarksAreToldOnceAndTheirNumbersStayOut) {
    const std::string old = "A,0\r\nB,0\r\nC,0\r\nD,0\r\nE,1\r\n";
    ASSERT_TRUE(load(old));
    EXPECT_TRUE(file_.markBurned(file_.takeNext()).empty());
    EXPECT_TRUE(file_.markBurned(file_.takeNext()).empty());
    directory_.write(kName, old);
    const auto unmarked = file_.markBurned(file_.takeNext());
    ASSERT_EQ(unmarked.size(), 2U);
    EXPECT_EQ(unmarked[0].sn, "A");
    EXPECT_EQ(unmarked[1].sn, "B");
    EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr("SN=A "), HasSubstr("SN=B ")));
    // C's own row was as it should be.
    EXPECT_EQ(content(), "A,0\r\nB,0\r\nC,1\r\nD,0\r\nE,1\r\n");
    directory_.write(kName, content());  // somebody saves it once more
    EXPECT_TRUE(file_.markBurned(file_.takeNext()).empty());
    EXPECT_EQ(next(), "-");

    // The next imports find the marks of this run gone, and one that was there before it.
    directory_.write(kName, "A,0\r\nB,0\r\nC,0\r\nD,1\r\nE,0\r\nF,0\r\n");
    for (int imports = 0; imports < 2; ++imports) {
        ASSERT_TRUE(file_.load(path()));
        EXPECT_EQ(file_.findings().lostMarks, 4U);
        EXPECT_EQ(file_.findings().firstLost, "A");
        EXPECT_THAT(log_.take(hj::kError), ElementsAre(HasSubstr("4 burned numbers")));
        EXPECT_EQ(next(), "F");
        EXPECT_EQ(next(), "-");
    }
    // A new run of the program knows nothing of it.
    file_.startAfresh();
    ASSERT_TRUE(file_.load(path()));
    EXPECT_EQ(file_.findings().lostMarks, 0U);
    EXPECT_EQ(next(), "A");
}

TEST_F(SerialNumFileTest, ANumberOfSeveralRowsIsHandedOutOnceAtMost) {
    ASSERT_TRUE(load("B,0\r\nA,0\r\n\r\nB,0\r\n,0\r\nC,0\r\n,0\r\nC,1\r\nD,x\r\nD,0\r\n"));
    EXPECT_EQ(file_.findings().repeatedRows, 3U);
    EXPECT_EQ(file_.findings().firstRepeatedLine, 4U);
    EXPECT_EQ(file_.findings().firstRepeated, "B");
    EXPECT_THAT(log_.take(hj::kWarning),
                ElementsAre(AllOf(HasSubstr("3 rows"), HasSubstr("SN=B"))));
    auto* const b = file_.takeNext();
    EXPECT_EQ(b->sn, "B");
    for (const char* const number : {"A", "", "", "D", "-"})
        EXPECT_EQ(next(), number);
    file_.releaseRecord(b);
    EXPECT_EQ(next(), "B");
    file_.markBurned(b);
    ASSERT_TRUE(file_.load(path()));
    EXPECT_EQ(next(), "A");
    // Rows in order need a second look only if two of them are the same.
    ASSERT_TRUE(load("K,0\r\nL,0\r\nM,0\r\n"));
    EXPECT_EQ(file_.findings().repeatedRows, 0U);
    EXPECT_THAT(log_.take(hj::kWarning), testing::SizeIs(1));
}

TEST_F(SerialNumFileTest, AByteOrderMarkBelongsToNoRow) {
    const std::string mark = "\xEF\xBB\xBF";
    ASSERT_TRUE(load(mark + "A,0\r\nB,0\r\n"));
    auto* const a = file_.takeNext();
    EXPECT_EQ(a->sn, "A");
    file_.markBurned(file_.takeNext());
    file_.markBurned(a);
    EXPECT_EQ(content(), mark + "A,1\r\nB,1\r\n");
    ASSERT_TRUE(load(mark));
    EXPECT_EQ(next(), "-");
    EXPECT_FALSE(load(mark + "A\r\n"));
    ASSERT_TRUE(
        load("\xEF\xBB"
             ",0\r\n"));
    EXPECT_EQ(next(), "\xEF\xBB");
}

TEST_F(SerialNumFileTest, AnImportThatIsCancelledLeavesTheListBefore) {
    ASSERT_TRUE(load("A,0\r\n"));
    std::string rows;
    for (int i = 0; i < 5000; ++i)
        rows += std::to_string(i) + ",0\r\n";
    std::stop_source operatorCancels;
    operatorCancels.request_stop();
    {
        const interruption::Scope scope(operatorCancels.get_token());
        EXPECT_FALSE(load(rows));
    }
    EXPECT_EQ(file_.isLoaded(), 1);
    EXPECT_EQ(next(), "A");
    EXPECT_TRUE(load(rows));
    EXPECT_EQ(next(), "0");
}

TEST_F(SerialNumFileTest, SixteenWorkersGetEveryNumberOnce) {
    constexpr std::size_t kNumbers = 320;
    std::string rows;
    for (std::size_t i = 0; i < kNumbers; ++i)
        rows += "SN" + std::to_string(1000 + i) + ",0\r\n";
    ASSERT_TRUE(load(rows));

    std::vector<std::vector<std::string>> burned(16);
    std::vector<std::thread> workers;
    workers.reserve(burned.size());
    for (auto& mine : burned)
        workers.emplace_back([&] {
            for (int i = 0; auto* const record = file_.takeNext(); ++i) {
                // Every third burn fails, and its number goes to whoever comes next.
                if (i % 3 == 1) {
                    file_.releaseRecord(record);
                    continue;
                }
                mine.push_back(record->sn);
                file_.markBurned(record);
            }
        });
    for (std::thread& worker : workers)
        worker.join();

    std::multiset<std::string> all;
    for (const auto& mine : burned)
        all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), kNumbers);
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), kNumbers);
    std::string expected = rows;
    for (std::size_t flag = 0; (flag = expected.find(",0\r", flag)) != std::string::npos;)
        expected[flag + 1] = '1';
    EXPECT_EQ(content(), expected);
}
