// The real boxes and dialogs, answered as an operator answers them.
#include "ui/prompts.h"

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>
#include <QTreeView>
#include <functional>

#include "support/temporarydirectory.h"

namespace {

class PromptsTest : public testing::Test {
  protected:
    PromptsTest() { parent_.show(); }

    // Does something with the box or dialog that comes up next.
    template <typename Dialog>
    void whenAsked(std::function<void(Dialog&)> act) {
        auto* const timer = new QTimer(&parent_);
        QObject::connect(timer, &QTimer::timeout, [timer, act] {
            auto* const dialog = qobject_cast<Dialog*>(QApplication::activeModalWidget());
            if (dialog == nullptr)
                return;
            timer->stop();
            act(*dialog);
        });
        timer->start(1);
    }

    QWidget parent_;
};

void press(QMessageBox& box, const QString& text) {
    for (QAbstractButton* const button : box.buttons()) {
        if (button->text().remove('&') == text)
            return QTest::mouseClick(button, Qt::LeftButton);
    }
    ADD_FAILURE() << "no button " << text.toStdString();
    box.close();
}

}  // namespace

TEST_F(PromptsTest, QuestionHasChineseButtonsAndOnlyOkIsYes) {
    const auto ask = [this] {
        return prompts().showBox(&parent_, "<b>1</b>\n2", "caption", BoxType::kWarningOkCancel);
    };
    whenAsked<QMessageBox>([](QMessageBox& box) {
        EXPECT_EQ(box.windowTitle(), "caption");
        EXPECT_EQ(box.icon(), QMessageBox::Warning);
        EXPECT_EQ(box.buttons().size(), 2);
        EXPECT_EQ(box.textFormat(), Qt::PlainText);
        press(box, QStringLiteral("确定"));
    });
    EXPECT_TRUE(ask());
    whenAsked<QMessageBox>([](QMessageBox& box) { press(box, QStringLiteral("取消")); });
    EXPECT_FALSE(ask());
    for (const auto& [key, answer] : {std::pair(Qt::Key_Escape, false), {Qt::Key_Return, true}}) {
        whenAsked<QMessageBox>([key = key](QMessageBox& box) { QTest::keyClick(&box, key); });
        EXPECT_EQ(ask(), answer);
    }
}

TEST_F(PromptsTest, NoticeHasOneButton) {
    for (const auto& [type, icon] : {std::pair(BoxType::kPlain, QMessageBox::NoIcon),
                                     std::pair(BoxType::kWarning, QMessageBox::Warning)}) {
        whenAsked<QMessageBox>([icon = icon](QMessageBox& box) {
            EXPECT_EQ(box.windowTitle(), "VorlanFactoryTool");
            EXPECT_EQ(box.icon(), icon);
            EXPECT_EQ(box.buttons().size(), 1);
            press(box, QStringLiteral("确定"));
        });
        prompts().showBox(&parent_, "text", {}, type);
    }
}

TEST_F(PromptsTest, ChoosesAFileAndStaysInTheDirectory) {
    const EnteredDirectory current;
    const TemporaryDirectory other;
    const QString file = QString::fromStdString(other.write("列表.csv", "x"));
    const auto choose = [this] {
        return prompts().chooseFile(&parent_, QStringLiteral("SN文件(*.csv)"));
    };

    whenAsked<QFileDialog>([&](QFileDialog& dialog) {
        EXPECT_EQ(dialog.nameFilters(), QStringList(QStringLiteral("SN文件(*.csv)")));
        EXPECT_EQ(dialog.labelText(QFileDialog::Reject), QStringLiteral("取消"));
        auto* const name = dialog.findChild<QLineEdit*>("fileNameEdit");
        name->setText(file);
        QTest::keyClick(name, Qt::Key_Return);
    });
    EXPECT_EQ(choose(), std::optional(file));
    whenAsked<QFileDialog>([&](QFileDialog& dialog) {
        EXPECT_EQ(dialog.directory().path().toStdString(), other.path()) << "the last file's place";
        QTest::keyClick(&dialog, Qt::Key_Escape);
    });
    EXPECT_EQ(choose(), std::nullopt);
    EXPECT_EQ(QDir::currentPath().toStdString(), current.path());
}

TEST_F(PromptsTest, FileDialogSpeaksChineseOnEveryDesktop) {
    const EnteredDirectory current;
    QDir().mkdir("folder");
    current.write("a.vrk", "12");
    current.write("b.vrk", std::string(9'000, 'x'));
    for (const char* const file : {"a.vrk", "b.vrk"}) {
        QFile opened(file);
        ASSERT_TRUE(opened.open(QIODevice::ReadWrite));
        ASSERT_TRUE(opened.setFileTime(QDateTime({2026, 3, 4}, {15, 6, 7}),
                                       QFileDevice::FileModificationTime));
    }
    whenAsked<QFileDialog>([](QFileDialog& dialog) {
        dialog.setDirectory(QDir::currentPath());
        // A dialog of the desktop's own would speak the desktop's language.
        EXPECT_TRUE(dialog.testOption(QFileDialog::DontUseNativeDialog));
        auto* const files = dialog.findChild<QTreeView*>("treeView");
        const auto row = [&](int number) {
            QStringList texts;
            for (int column = 0; column < 3; ++column)
                texts << files->rootIndex()
                             .model()
                             ->index(number, column, files->rootIndex())
                             .data()
                             .toString();
            return texts.join('|').toStdString();
        };
        EXPECT_TRUE(
            QTest::qWaitFor([&] { return files->model()->rowCount(files->rootIndex()) == 3; }));
        files->sortByColumn(1, Qt::AscendingOrder);
        EXPECT_EQ(row(0), "folder||文件夹");
        EXPECT_EQ(row(1), "a.vrk|2 字节|VRK 文件");
        EXPECT_EQ(row(2), "b.vrk|8.79 kB|VRK 文件");
        const QModelIndex date = files->model()->index(1, 3, files->rootIndex());
        EXPECT_EQ(date.data().toString(), "2026-03-04 15:06");

        QStringList texts{dialog.windowTitle()};
        for (const QAbstractButton* const button : dialog.findChildren<QAbstractButton*>())
            texts << button->text() << button->toolTip();
        for (const QLabel* const label : dialog.findChildren<QLabel*>())
            texts << label->text();
        for (int column = 0; column < 4; ++column)
            texts << files->model()->headerData(column, Qt::Horizontal).toString();
        for (const QString& text : texts)
            EXPECT_FALSE(text.contains(QRegularExpression("[A-Za-z]{2}"))) << text.toStdString();
        dialog.reject();
    });
    prompts().chooseFile(&parent_, QStringLiteral("刷机固件(*.vrk *.zip)"));
}
