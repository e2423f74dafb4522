// The fonts and colours the global options give some panes of the windows (the trees, the item
// view, the caption bar, the log panes). Everything else follows the desktop's palette.
#pragma once

#include "app/globalOptions.h"

#include <QColor>
#include <QFont>

#include <string>

class QDialog;
class QLabel;
class QWidget;

namespace trayClient {

// A colour kept as 0x00BBGGRR (red in the low byte); the top byte is ignored.
QColor fromColourRef(app::ColourRef colour);
// The inverse, for dialogs that write a chosen colour back to the options.
app::ColourRef toColourRef(const QColor& colour);

// The font an option names (Latin-1 family, point size; the desktop's nearest match when the
// family is not installed), in italics when asked.
QFont fontFromOptions(const std::string& family, int pointSize, bool italic = false);

// Gives a view its text and background colours (the palette's Text and Base, so that
// selection and focus still follow the desktop).
void setViewColours(QWidget& view, const QColor& text, const QColor& background);

// Lays out an editing dialog: its content, then a red line for why OK was refused (hidden
// until used), then OK and Cancel.
void layOutEditDialog(QDialog& dialog, QWidget* content, QLabel& error);

} // namespace trayClient
