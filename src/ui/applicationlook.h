// How the program looks and speaks on every desktop, for the program itself and for whoever else
// shows its window.
#pragma once

#include <QApplication>

// Gives the application its name, version, icon and style in light colours, and Chinese texts on
// the buttons and dialogs that come with the toolkit. To be called once, before the first widget is
// made.
void setUpApplication(QApplication& application);
