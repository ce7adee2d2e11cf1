// Work that may take longer than a window should stand still.
#pragma once

#include <QString>
#include <QWidget>
#include <functional>

// Told of how far the work has come, from 0 to 100. Any thread.
using PercentReport = std::function<void(int percent)>;

// Runs `work` on a thread of its own and returns when it has ended. The window lives on meanwhile,
// but takes no orders; if it takes longer than a moment a box shows `text` and, where the work
// tells it, how far it has come, and offers to cancel it. Cancelled, the work is interrupted, as it
// is when the program ends (see interruption.h), and should end soon.
//
// On the user-interface thread. False if the operator has cancelled the work.
bool runLongWork(QWidget& parent, const QString& text,
                 const std::function<void(const PercentReport& report)>& work);
