#include "ui/devicedisplay.h"

#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QImage>
#include <QPainter>
#include <QTest>
#include <QTextDocumentFragment>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "ui/applicationlook.h"

namespace {

// Left, top, right, bottom.
using Edges = std::array<int, 4>;

Edges edgesOf(const QWidget* widget) {
    const QRect at = widget->geometry();
    return {at.left(), at.top(), at.left() + at.width(), at.top() + at.height()};
}

class DeviceDisplayTest : public testing::Test {
  protected:
    DeviceDisplayTest() {
        area_.resize(800, 600);
        area_.show();
    }

    // In the place of an earlier one.
    void create(const QRect& rectangle = {0, 0, 401, 70}) {
        for (QWidget* const old : area_.findChildren<QWidget*>())
            delete old;
        EXPECT_EQ(display_.create(rectangle, 10'000), 10'004);
    }

    template <typename Control>
    Control* control(int id) {
        return area_.findChild<Control*>(QString::number(id));
    }
    QLineEdit* title() { return control<QLineEdit>(10'000); }
    QLineEdit* tag() { return control<QLineEdit>(10'001); }
    QProgressBar* bar() { return control<QProgressBar>(10'002); }
    QLabel* status() { return control<QLabel>(10'003); }

    // Lets the screen catch up.
    void settle() {
        const int before = refreshes_;
        refresher_.request();
        ASSERT_TRUE(QTest::qWaitFor([&] { return refreshes_ > before; }));
    }

    QWidget area_;
    int refreshes_ = 0;
    Refresher refresher_{[this] {
        display_.refresh();
        ++refreshes_;
    }};
    DeviceDisplay display_{&area_, refresher_};
};

// How many rows of pixels differ from the picture's background, `border` pixels on each side apart.
int inkedRows(const QImage& picture, int border = 0) {
    const QRgb background = picture.pixel(picture.width() - 1 - border, border);
    int rows = 0;
    for (int y = border; y < picture.height() - border; ++y) {
        for (int x = border; x < picture.width() - border; ++x) {
            if (std::abs(qGray(picture.pixel(x, y)) - qGray(background)) > 40) {
                ++rows;
                break;
            }
        }
    }
    return rows;
}

// The same for the text where it has all the room that it wants.
int inkedRows(const QString& text, const QFont& font, const QColor& colour) {
    QImage picture(1000, 200, QImage::Format_RGB32);
    picture.fill(Qt::white);
    QPainter painter(&picture);
    painter.setFont(font);
    painter.setPen(colour);
    painter.drawText(10, 100, text);
    painter.end();
    return inkedRows(picture);
}

int firstInkedColumn(const QImage& picture) {
    for (int x = 0; x < picture.width(); ++x) {
        for (int y = 0; y < picture.height(); ++y) {
            if (qGray(picture.pixel(x, y)) < 128)
                return x;
        }
    }
    return -1;
}

}  // namespace

TEST_F(DeviceDisplayTest, EachChangeShowsByItself) {
    create();
    display_.setName(L"1-2");
    EXPECT_TRUE(QTest::qWaitFor([&] { return title()->text() == "1-2"; }));
    display_.setProgress(40);
    EXPECT_TRUE(QTest::qWaitFor([&] { return bar()->value() == 40; }));
}

TEST_F(DeviceDisplayTest, MatchesToThePixel) {
    const struct {
        QRect rectangle;
        Edges title, tag, bar, status;
    } layouts[] = {
        // Content 92 wide, rows of 20.
        {{0, 0, 100, 68}, {4, 2, 68, 22}, {68, 2, 96, 22}, {4, 24, 96, 44}, {4, 46, 96, 66}},
        // Odd sizes elsewhere: content 461 wide, rows of 17, and what does not divide is left over.
        {{469, 54, 469, 61},
         {473, 56, 783, 73},
         {783, 56, 934, 73},
         {473, 75, 934, 92},
         {473, 94, 934, 111}},
        // Too low for three rows: they get no height, but stay in their places.
        {{10, 10, 60, 10}, {14, 12, 51, 12}, {51, 12, 66, 12}, {14, 14, 66, 14}, {14, 16, 66, 16}}};
    for (const auto& layout : layouts) {
        create(layout.rectangle);
        EXPECT_EQ(edgesOf(title()), layout.title);
        EXPECT_EQ(edgesOf(tag()), layout.tag);
        EXPECT_EQ(edgesOf(bar()), layout.bar);
        EXPECT_EQ(edgesOf(status()), layout.status);
    }
}

TEST_F(DeviceDisplayTest, LettersAreWholeHoweverLowTheRowsAndTheNameStandsOverTheStatus) {
    const QString text = QStringLiteral("国警_gyj(Q)");
    for (const int row : {24, 20, 17, 15, 14, 13, 12, 11}) {
        create({0, 0, 401, 3 * row + 8});
        display_.setName(text.toStdWString());
        display_.setStatus(text.toStdWString());
        settle();
        tag()->clearFocus();
        const auto inTag = [&] { return inkedRows(tag()->grab().toImage(), 1); };
        const QColor colour = area_.palette().color(QPalette::Text);
        EXPECT_EQ(inkedRows(status()->grab().toImage()), inkedRows(text, status()->font(), colour))
            << "status in " << row;
        EXPECT_EQ(firstInkedColumn(title()->grab().toImage()),
                  firstInkedColumn(status()->grab().toImage()));
        EXPECT_EQ(inkedRows(title()->grab().toImage()), inkedRows(text, title()->font(), colour))
            << "title in " << row;
        EXPECT_EQ(inTag(), inkedRows(tag()->placeholderText(), tag()->font(),
                                     tag()->palette().color(QPalette::PlaceholderText)))
            << "cue in " << row;
        display_.setTag(text.toStdWString());
        settle();
        EXPECT_EQ(inTag(), inkedRows(text, tag()->font(), colour)) << "label in " << row;
        EXPECT_GT(QFontInfo(status()->font()).pixelSize(), row / 2) << "smaller than it need be";
    }
}

TEST_F(DeviceDisplayTest, TextsThatMayNotFitCanBeReadInATip) {
    create();
    const auto tipOf = [](const QWidget* control) {
        return QTextDocumentFragment::fromHtml(control->toolTip()).toPlainText();
    };
    const QString name = QStringLiteral("<b>USB-SERIAL & (ttyUSB0)");
    display_.setName(name.toStdWString());
    display_.setTag(L"<i>工位");
    settle();
    EXPECT_EQ(tipOf(title()), name);
    EXPECT_EQ(tipOf(tag()), QStringLiteral("<i>工位"));
    QTest::keyClicks(tag(), "-7");
    EXPECT_EQ(tipOf(tag()), QStringLiteral("<i>工位-7"));
    display_.setTag(L"");
    settle();
    EXPECT_EQ(tipOf(tag()), "");
}

TEST_F(DeviceDisplayTest, ShowsTheLastOfSeveralCalls) {
    create();
    for (int percent = 0; percent <= 70; ++percent)
        display_.setProgress(percent);
    display_.setName(L"first");
    display_.setName(L"USB\\VID_1234&PID_5678\\1-2");
    display_.setError(0x1F, L"设备");
    display_.setTag(L"A");
    settle();
    EXPECT_EQ(title()->text(), "USB\\VID_1234&PID_5678\\1-2");
    EXPECT_EQ(bar()->value(), 70);
    EXPECT_EQ(status()->text(), QStringLiteral("error=0x1f, des=设备"));
    EXPECT_EQ(tag()->text(), "A");

    display_.setStatus(L"");
    display_.setProgress(0);
    display_.showTagBox(false);
    settle();
    EXPECT_EQ(status()->text(), "");
    EXPECT_EQ(bar()->value(), 0);
    EXPECT_FALSE(tag()->isVisible());
    EXPECT_TRUE(bar()->isVisible());
}

TEST_F(DeviceDisplayTest, GreysAllButTheName) {
    create();
    for (const bool active : {false, true}) {
        display_.setActive(active);
        settle();
        EXPECT_TRUE(title()->isEnabled());
        EXPECT_EQ(tag()->isEnabled(), active);
        EXPECT_EQ(bar()->isEnabled(), active);
        EXPECT_EQ(status()->isEnabled(), active);
        EXPECT_EQ(status()->grab().toImage().pixelColor(0, 0), QColor(Qt::white));
    }
}

// The strongest contrast of a picture's pixels with its background, from 1 on (WCAG 2.1).
double contrastOf(const QImage& picture) {
    const auto luminance = [](const QColor& colour) {
        const auto linear = [](double value) {
            return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
        };
        return 0.2126 * linear(colour.redF()) + 0.7152 * linear(colour.greenF()) +
               0.0722 * linear(colour.blueF());
    };
    const double ground = luminance(picture.pixelColor(picture.width() - 1, 0));
    double contrast = 1;
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            const double ink = luminance(picture.pixelColor(x, y));
            contrast =
                std::max(contrast, (std::max(ink, ground) + 0.05) / (std::min(ink, ground) + 0.05));
        }
    }
    return contrast;
}

TEST_F(DeviceDisplayTest, CanBeReadInALightDesktopAndInADarkOne) {
    const QPalette light = QApplication::palette();
    QPalette dark = light;
    for (const auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
            dark.setColor(group, role, QColor(0xEE, 0xEE, 0xEC));
        for (const auto role : {QPalette::Window, QPalette::Base, QPalette::Button})
            dark.setColor(group, role, QColor(0x32, 0x32, 0x32));
    }
    for (const QPalette& palette : {light, dark}) {
        QApplication::setPalette(legible(palette));
        QCoreApplication::processEvents();
        create();
        display_.setStatus(L"MMMM");
        for (const bool active : {true, false}) {
            display_.setActive(active);
            settle();
            EXPECT_GE(contrastOf(status()->grab().toImage()), 4.5) << active;
        }
    }
    QApplication::setPalette(light);
}

TEST_F(DeviceDisplayTest, CueIsThereWhileTheBoxIsNotInUseAndNobodyTypesIntoTheNextTile) {
    create();
    QLineEdit next(&area_);
    next.show();
    const QString cue = QStringLiteral("请输入标签");
    EXPECT_EQ(tag()->placeholderText(), cue);
    area_.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&area_));
    tag()->setFocus();
    EXPECT_EQ(tag()->placeholderText(), "");
    display_.setActive(false);
    settle();
    EXPECT_EQ(tag()->placeholderText(), cue);
    EXPECT_EQ(area_.focusWidget(), nullptr);
}

TEST_F(DeviceDisplayTest, GivesTheTagThatWasTypedOrSetLast) {
    create();
    EXPECT_EQ(display_.getTag(), L"");
    display_.setTag(L"set");
    EXPECT_EQ(display_.getTag(), L"set") << "before the screen shows it";
    settle();
    QTest::keyClicks(tag(), "-7");
    EXPECT_EQ(display_.getTag(), L"set-7");
    QAccessible::queryAccessibleInterface(tag())->setText(QAccessible::Value, "by tool");
    EXPECT_EQ(display_.getTag(), L"by tool");
    display_.setTag(L"just before");
    QTest::keyClicks(tag(), "!");
    settle();
    EXPECT_EQ(tag()->text().toStdWString(), display_.getTag());

    const std::wstring longTag(1000, L'标');
    display_.setTag(longTag);
    settle();
    EXPECT_EQ(tag()->text().toStdWString(), longTag);
    QTest::keyClicks(tag(), "x");
    EXPECT_EQ(display_.getTag(), longTag + L"x");
    display_.setTag(std::wstring(40'000, L'x'));
    settle();
    EXPECT_EQ(display_.getTag().size(), 40'000U) << "no more than the box can hold";
}

TEST_F(DeviceDisplayTest, TextIsNeverMarkup) {
    create();
    display_.setStatus(L"<img src=x> <b>SN=&amp;1</b>");
    settle();
    EXPECT_EQ(status()->textFormat(), Qt::PlainText);
    EXPECT_EQ(status()->text(), "<img src=x> <b>SN=&amp;1</b>");
    EXPECT_FALSE(status()->toolTip().contains("<img"));

    // Nor do assistive tools tell markup: they tell the device.
    display_.setName(L"port 3");
    settle();
    for (QWidget* const control : {static_cast<QWidget*>(tag()), static_cast<QWidget*>(bar()),
                                   static_cast<QWidget*>(status())})
        EXPECT_EQ(QAccessible::queryAccessibleInterface(control)->text(QAccessible::Description),
                  "port 3");
}
