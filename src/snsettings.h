// What the operator can do about serial numbers, wherever the window offers it: import a file of
// them, and choose the flash address at which a device gets its number.
#pragma once

#include <QLineEdit>
#include <QWidget>

// Lets the operator choose a CSV file, shows its path in `pathBox`, loads it as the pool of serial
// numbers and remembers it for the next start of the program. Tells the operator the outcome. True
// if the pool was loaded. Not while a page is burning.
bool importSnFile(QWidget* parent, QLineEdit& pathBox);

// Stores the hexadecimal address that the box holds and saves the settings. False, and the operator
// is told, if it is 0 or no number.
bool storeSnAddress(QWidget* parent, const QLineEdit& addressBox);

// Shows the stored address in the box, as in "0x7ff004"; leaves the box as it is if there is none.
void showSnAddress(QLineEdit& addressBox);
