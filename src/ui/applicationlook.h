// How the program looks and speaks on every desktop, for the program itself and for whoever else
// shows its window.
#pragma once

#include <QApplication>
#include <QPalette>

// Gives the application its name, version, icon and style, and Chinese texts on
// the buttons and dialogs that come with the toolkit. To be called once, before the first widget is
// made.
void setUpApplication(QApplication& application);

// A desktop's colours, light or dark, but with greyed texts that can be read: a tile that is greyed
// out still tells why its burn failed.
QPalette legible(QPalette palette);
