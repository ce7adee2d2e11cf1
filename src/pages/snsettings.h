// What the operator can do about serial numbers, wherever the window offers it: import a file of
// them, and choose the flash address at which a device gets its number.
#pragma once

#include <QLineEdit>
#include <QWidget>
#include <string>

enum class SnLoad { kLoaded, kFailed, kCancelled };

// Loads the CSV file as the pool of serial numbers; the window lives on meanwhile. The operator may
// cancel what takes longer than a moment; the list before stays then.
SnLoad loadSnFile(QWidget& parent, const std::wstring& path);

// Lets the operator choose a CSV file, loads it as the pool of serial numbers and remembers it for
// the next start of the program. Tells the operator the outcome. Not while a page is burning.
void importSnFile(QWidget* parent);

// Tells the operator, in a box that nobody waits for, what the list in force has that he should
// know: repeated numbers, burned numbers whose marks are gone. Nothing if there is no such thing.
void tellSnFindings(QWidget* parent);

// Shows the path of the list in force, greyed out if there is none.
void showSnPath(QLineEdit& pathBox);

// Stores the hexadecimal address that the box holds and saves the settings. False, and the operator
// is told, if it is 0 or no number. That the settings could not be saved the operator is told once
// for each cause, in a box that nobody waits for: they hold for this run all the same.
bool storeSnAddress(QWidget* parent, const QLineEdit& addressBox);

// Shows the stored address in the box, as in "0x7ff004"; leaves the box as it is if there is none.
void showSnAddress(QLineEdit& addressBox);
