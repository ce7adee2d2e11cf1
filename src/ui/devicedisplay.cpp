#include "ui/devicedisplay.h"

#include <QFont>
#include <cstdio>
#include <utility>

namespace {

// In pixels.
constexpr int kLeftMargin = 4;
constexpr int kTopMargin = 2;
constexpr int kRightMargin = 4;
constexpr int kBottomMargin = 2;
constexpr int kRowGap = 2;

// The style's own frame is so thick that a row's text would be cut off.
const QString kThinFrame = QStringLiteral(
    "QLineEdit { border: 1px solid #b4b4b4; background: white; }"
    "QLineEdit:focus { border-color: palette(highlight); }"
    "QLineEdit:disabled { background: palette(window); }");

QRect fromEdges(int left, int top, int right, int bottom) {
    return {left, top, right - left, bottom - top};
}

// As rich text that shows the plain text: tool tips guess which of the two they get.
QString toolTipOf(const QString& text) {
    return text.isEmpty() ? text : QStringLiteral("<p>%1</p>").arg(text.toHtmlEscaped());
}

}  // namespace

DeviceDisplay::DeviceDisplay(QWidget* parent, Refresher& refresher)
    : parent_(parent), refresher_(refresher) {}

int DeviceDisplay::create(const QRect& rectangle, int firstId) {
    const int contentWidth = rectangle.width() - (kLeftMargin + kRightMargin);
    const int rowHeight = (rectangle.height() - (kTopMargin + kBottomMargin) - 2 * kRowGap) / 3;
    const int left = rectangle.left() + kLeftMargin;
    const int right = left + contentWidth;
    const int split = left + (kLeftMargin + contentWidth) * 2 / 3;
    int top = rectangle.top() + kTopMargin;

    titleBox_ = new QLineEdit(parent_);
    titleBox_->setFrame(false);
    titleBox_->setGeometry(fromEdges(left, top, split, top + rowHeight));
    titleBox_->setAccessibleName(QStringLiteral("设备"));
    // Nothing to do there for an operator who goes from label to label by key.
    titleBox_->setFocusPolicy(Qt::ClickFocus);
    tagBox_ = new QLineEdit(parent_);
    tagBox_->setGeometry(fromEdges(split, top, right, top + rowHeight));
    tagBox_->setAccessibleName(QStringLiteral("标签"));
    tagBox_->setStyleSheet(kThinFrame);
    QObject::connect(tagBox_, &QLineEdit::textEdited, [this](const QString& tag) { typed(tag); });

    top += rowHeight + kRowGap;
    bar_ = new QProgressBar(parent_);
    bar_->setGeometry(fromEdges(left, top, right, top + rowHeight));
    bar_->setAccessibleName(QStringLiteral("进度"));

    top += rowHeight + kRowGap;
    statusLine_ = new CCustomStatic(parent_);
    statusLine_->setGeometry(fromEdges(left, top, right, top + rowHeight));

    int id = firstId;
    for (QWidget* const control :
         {static_cast<QWidget*>(titleBox_), static_cast<QWidget*>(tagBox_),
          static_cast<QWidget*>(bar_), static_cast<QWidget*>(statusLine_)}) {
        control->setObjectName(QString::number(id++));
        control->show();
    }
    const QFont font(QStringLiteral("宋体"), 10);
    titleBox_->setFont(font);
    tagBox_->setFont(font);
    statusLine_->setFont(font);
    tagBox_->setPlaceholderText(QStringLiteral("请输入标签"));
    return id;
}

template <typename Value>
void DeviceDisplay::change(std::optional<Value> Changes::*field, const Value& value) {
    {
        const std::lock_guard guard(lock_);
        changes_.*field = value;
    }
    refresher_.request();
}

void DeviceDisplay::setName(const std::wstring& name) {
    change(&Changes::name, name);
}

void DeviceDisplay::setTag(const std::wstring& tag) {
    {
        const std::lock_guard guard(lock_);
        tag_ = tag;
        changes_.tag = tag;
    }
    refresher_.request();
}

void DeviceDisplay::typed(const QString& tag) {
    const std::lock_guard guard(lock_);
    tag_ = tag.toStdWString();
    changes_.tag.reset();
}

std::wstring DeviceDisplay::getTag() const {
    const std::lock_guard guard(lock_);
    return tag_;
}

void DeviceDisplay::setStatus(const std::wstring& status) {
    change(&Changes::status, status);
}

void DeviceDisplay::setError(std::uint32_t code, const std::wstring& text) {
    wchar_t number[16];
    std::swprintf(number, std::size(number), L"0x%x", code);
    setStatus(L"error=" + std::wstring(number) + L", des=" + text);
}

void DeviceDisplay::setProgress(int percent) {
    change(&Changes::progress, percent);
}

void DeviceDisplay::setActive(bool active) {
    change(&Changes::active, active);
}

void DeviceDisplay::showTagBox(bool visible) {
    change(&Changes::tagBoxVisible, visible);
}

void DeviceDisplay::refresh() {
    Changes changes;
    {
        const std::lock_guard guard(lock_);
        changes = std::exchange(changes_, {});
    }
    if (changes.name)
        titleBox_->setText(QString::fromStdWString(*changes.name));
    if (changes.tag)
        tagBox_->setText(QString::fromStdWString(*changes.tag));
    if (changes.status) {
        const QString status = QString::fromStdWString(*changes.status);
        statusLine_->setText(status);
        statusLine_->setToolTip(toolTipOf(status));
    }
    if (changes.progress)
        bar_->setValue(*changes.progress);
    if (changes.active) {
        for (QWidget* const control : {static_cast<QWidget*>(tagBox_), static_cast<QWidget*>(bar_),
                                       static_cast<QWidget*>(statusLine_)})
            control->setEnabled(*changes.active);
    }
    if (changes.tagBoxVisible)
        tagBox_->setVisible(*changes.tagBoxVisible);
}
