#include "ui/pagesheet.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>
#include <QWheelEvent>

namespace {

class TestPage final : public Page {
  public:
    using Page::Page;

    void OnInitDialog() override { ++initialised; }
    bool OnSetActive() override {
        ++asked;
        whileAsked();
        return accepts;
    }
    bool OnKillActive() override {
        ++askedToLeave;
        return leaves;
    }
    void OnLeft() override { ++left; }

    bool accepts = true;
    bool leaves = true;
    int initialised = 0;
    int asked = 0;
    int askedToLeave = 0;
    int left = 0;
    std::function<void()> whileAsked = [] {};
};

class PageSheetTest : public testing::Test {
  protected:
    PageSheetTest() {
        sheet_.addPage(&first_);
        sheet_.addPage(&second_);
        sheet_.addPage(&third_);
        EXPECT_TRUE(sheet_.setActivePage(0));
        sheet_.show();
    }

    QTabBar& tabs() { return *sheet_.findChild<QTabBar*>(); }
    void click(int index) {
        QTest::mouseClick(&tabs(), Qt::LeftButton, {}, tabs().tabRect(index).center());
    }
    // The page that can be seen, whose tab must be the marked one.
    int front() {
        const int marked = tabs().currentIndex();
        EXPECT_EQ(marked, sheet_.activePage());
        const TestPage* const pages[] = {&first_, &second_, &third_};
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(pages[i]->isVisible(), i == marked) << "page " << i;
        return marked;
    }

    PageSheet sheet_;
    TestPage first_{QStringLiteral("first")};
    TestPage second_{QStringLiteral("second")};
    TestPage third_{QStringLiteral("third")};
};

}  // namespace

TEST_F(PageSheetTest, TabsButtonsAndKeysTakeTheSameRoad) {
    EXPECT_EQ(tabs().tabText(1), QStringLiteral("second"));
    EXPECT_EQ(front(), 0);
    EXPECT_EQ(second_.initialised, 0) << "made before it was needed";
    click(0);
    EXPECT_TRUE(sheet_.setActivePage(0));
    EXPECT_EQ(first_.asked, 1);
    EXPECT_EQ(first_.askedToLeave, 0);

    click(1);
    EXPECT_EQ(front(), 1);
    EXPECT_TRUE(sheet_.setActivePage(2));
    EXPECT_EQ(front(), 2);
    tabs().setFocus();
    QTest::keyClick(&tabs(), Qt::Key_Left);
    EXPECT_EQ(front(), 1);

    EXPECT_EQ(second_.initialised, 1);
    EXPECT_EQ(second_.asked, 2);
    EXPECT_EQ(second_.askedToLeave, 1);
    EXPECT_EQ(third_.askedToLeave, 1);
}

TEST_F(PageSheetTest, RefusingPageIsNeverShown) {
    second_.accepts = false;
    click(1);
    EXPECT_EQ(front(), 0);
    EXPECT_FALSE(sheet_.setActivePage(1));
    EXPECT_EQ(front(), 0);
    tabs().setFocus();
    QTest::keyClick(&tabs(), Qt::Key_Right);
    EXPECT_EQ(front(), 0);
    EXPECT_EQ(second_.asked, 3);
    EXPECT_EQ(second_.initialised, 1);
    EXPECT_EQ(first_.askedToLeave, 3);
    EXPECT_EQ(first_.left, 0) << "given up for a page that did not come";

    second_.accepts = true;
    click(1);
    EXPECT_EQ(front(), 1);
    EXPECT_EQ(first_.left, 1);
}

TEST_F(PageSheetTest, PageThatStaysKeepsTheOthersUnasked) {
    first_.leaves = false;
    click(2);
    QTest::keyClick(&tabs(), Qt::Key_Right);
    EXPECT_FALSE(sheet_.setActivePage(1));
    EXPECT_EQ(front(), 0);
    EXPECT_EQ(first_.askedToLeave, 3);
    EXPECT_EQ(second_.asked + third_.asked, 0);
}

TEST_F(PageSheetTest, WheelOverTheTabsMovesNothing) {
    const auto turn = [&](QWidget& under, int notches) {
        const QPointF at = under.rect().center();
        QWheelEvent event(at, under.mapToGlobal(at), {}, {0, 120 * notches}, Qt::NoButton, {},
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(&under, &event);
    };
    click(1);
    for (const int notches : {-1, 1, -3}) {
        turn(tabs(), notches);
        EXPECT_EQ(front(), 1);
    }
    EXPECT_EQ(second_.askedToLeave, 0);
}

TEST_F(PageSheetTest, NothingElseMovesWhileAPageIsAsked) {
    second_.whileAsked = [&] {
        click(2);
        EXPECT_FALSE(sheet_.setActivePage(2));
        EXPECT_EQ(front(), 0);
    };
    click(1);
    EXPECT_EQ(front(), 1);
    EXPECT_EQ(third_.asked, 0);
}
