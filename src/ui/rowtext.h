// Fits a line of text into a row whose height is given, whatever fonts the desktop has: for the
// tiles, whose rows are low.
#pragma once

#include <QFont>
#include <QMargins>

class RowText {
  public:
    // Makes `font` no larger than it is, and so small that no letter, Chinese or below the line, is
    // cut in a row of `height` pixels.
    RowText(const QFont& font, int height);

    const QFont& font() const { return font_; }
    // Where the line stands, in pixels below the row's upper edge.
    int baseLine() const { return baseLine_; }
    // The same for an edit of the row's height: negative where the line, which is higher than its
    // letters, goes beyond the row.
    QMargins editMargins() const;

  private:
    QFont font_;
    int height_;
    int baseLine_;
};
