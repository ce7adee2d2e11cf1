#include "ui/devicedisplay.h"

#include <QFont>
#include <QSignalBlocker>
#include <cstdio>
#include <utility>

#include "ui/rowtext.h"
#include "ui/tooltip.h"

namespace {

// In pixels.
constexpr int kLeftMargin = 4;
constexpr int kTopMargin = 2;
constexpr int kRightMargin = 4;
constexpr int kBottomMargin = 2;
constexpr int kRowGap = 2;
constexpr int kThinFrame = 1;
constexpr int kEditIndent = 2;  // of an edit's text, by the toolkit

// The style's own frame is so thick that a row's text would be cut off.
const QString kThinFrameStyle = QStringLiteral(
    "QLineEdit { border: 1px solid palette(mid); background: palette(base); }"
    "QLineEdit:focus { border-color: palette(highlight); }"
    "QLineEdit:disabled { background: palette(window); }");

// The edit of a label, with a cue that is gone while the box has the focus.
class TagBox final : public QLineEdit {
  public:
    explicit TagBox(QWidget* parent) : QLineEdit(parent) { setPlaceholderText(cue()); }

  private:
    static QString cue() { return QStringLiteral("请输入标签"); }

    void focusInEvent(QFocusEvent* event) override {
        setPlaceholderText({});
        QLineEdit::focusInEvent(event);
    }
    void focusOutEvent(QFocusEvent* event) override {
        setPlaceholderText(cue());
        QLineEdit::focusOutEvent(event);
    }
};

QRect fromEdges(int left, int top, int right, int bottom) {
    return {left, top, right - left, bottom - top};
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
    tagBox_ = new TagBox(parent_);
    tagBox_->setGeometry(fromEdges(split, top, right, top + rowHeight));
    tagBox_->setAccessibleName(QStringLiteral("标签"));
    tagBox_->setStyleSheet(kThinFrameStyle);
    // Unlike textEdited, it also tells what assistive tools and input devices put in.
    QObject::connect(tagBox_, &QLineEdit::textChanged, [this](const QString& tag) { typed(tag); });

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
    const RowText inRow(font, rowHeight);
    const RowText inFrame(font, rowHeight - 2 * kThinFrame);
    titleBox_->setFont(inRow.font());
    // The name begins where bar and status line begin.
    titleBox_->setTextMargins(inRow.editMargins() - QMargins(kEditIndent, 0, 0, 0));
    tagBox_->setFont(inFrame.font());
    tagBox_->setTextMargins(inFrame.editMargins());
    statusLine_->setFont(inRow.font());
    statusLine_->setBaseLine(inRow.baseLine());
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
    setPlainToolTip(*tagBox_, tag);
    const std::lock_guard guard(lock_);
    tag_ = tag.toStdWString();
    changes_.tag.reset();
}

std::wstring DeviceDisplay::getTag() const {
    const std::lock_guard guard(lock_);
    return tag_;
}

void DeviceDisplay::setStatus(const std::wstring& status) {
    {
        const std::lock_guard guard(lock_);
        status_ = status;
        changes_.status = status;
    }
    refresher_.request();
}

std::wstring DeviceDisplay::getStatus() const {
    const std::lock_guard guard(lock_);
    return status_;
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
    QWidget* const others[] = {tagBox_, bar_, statusLine_};
    if (changes.name) {
        const QString name = QString::fromStdWString(*changes.name);
        titleBox_->setText(name);
        setPlainToolTip(*titleBox_, name);
        // Assistive tools tell by it which of the sixteen a control belongs to.
        for (QWidget* const control : others)
            control->setAccessibleDescription(name);
    }
    if (changes.tag) {
        const QSignalBlocker nobodyTyped(tagBox_);
        const QString tag = QString::fromStdWString(*changes.tag);
        tagBox_->setText(tag);
        setPlainToolTip(*tagBox_, tag);
    }
    if (changes.status) {
        const QString status = QString::fromStdWString(*changes.status);
        statusLine_->setText(status);
        setPlainToolTip(*statusLine_, status);
    }
    if (changes.progress)
        bar_->setValue(*changes.progress);
    if (changes.active) {
        // Else the focus goes to the next tile, whose label gets what is being typed here.
        if (!*changes.active)
            tagBox_->clearFocus();
        for (QWidget* const control : others)
            control->setEnabled(*changes.active);
    }
    if (changes.tagBoxVisible)
        tagBox_->setVisible(*changes.tagBoxVisible);
}
