// show-notice TEXT: the window in which the installers beside it tell the operator what went wrong.
// Ends when it has been closed.
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QVBoxLayout>

#include "ui/applicationlook.h"
#include "ui/stringtable.h"

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc != 2)
        return 1;
    setUpApplication(application);

    // Not a message box, which would break the lines of commands that are to be typed.
    QDialog window;
    window.setWindowTitle(strings::kNotice.toString());
    auto* const layout = new QVBoxLayout(&window);
    auto* const text = new QLabel(QString::fromUtf8(argv[1]));
    text->setTextFormat(Qt::PlainText);
    text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(text);
    auto* const buttons = new QDialogButtonBox(QDialogButtonBox::Ok);
    QObject::connect(buttons, &QDialogButtonBox::accepted, &window, &QDialog::accept);
    layout->addWidget(buttons);
    window.exec();
    return 0;
}
