// The binding of the global options to the editors of the options dialog: one table row per
// key (its kind of editor, its bounds, its page, its group and its label), and the operations
// that make an editor, show a record's value in it and take the value back.
#pragma once

#include "app/globalOptions.h"

#include <QColor>
#include <QPushButton>

#include <span>
#include <variant>

namespace trayClient {

enum class OptionPage { General, Notifications, Fonts, Listeners, Scripts };

enum class EditorKind {
    Flag,      // QCheckBox
    Number,    // QSpinBox over minimum..maximum
    Choice,    // QComboBox of named values minimum, minimum + 1, ...
    Text,      // QLineEdit
    SoundFile, // CFileChooser for sound files
    FontName,  // editable QComboBox of the installed font families
    Colour,    // CColourButton
};

using OptionField =
    std::variant<int app::GlobalOptions::*, bool app::GlobalOptions::*,
                 std::string app::GlobalOptions::*, app::ColourRef app::GlobalOptions::*>;

struct OptionEditorRow {
    const char* key; // the key in "Global Options"; also the editor's object name
    EditorKind kind;
    OptionField field;
    OptionPage page;
    const char* group; // the box on the page that holds the editor (a pane on the fonts page)
    const char* label;
    int minimum = 0; // Number and Choice: the editor's bounds
    int maximum = 0;
    // Choice: the names of the values, separated by "|". Number: the text shown for the
    // minimum ("No limit"), when it means something special.
    const char* names = nullptr;
    bool readOnly = false; // shown, never edited ("_HttpUserAgent", the log panes' colours)
};

// Every key of "Global Options", in the order the pages show them.
std::span<const OptionEditorRow> optionEditorRows();

// The editor for a row, parented to parent, named after the key.
QWidget* makeOptionEditor(const OptionEditorRow& entry, QWidget* parent);
// Shows the record's value; a value outside the editor's bounds shows the key's default.
void showOption(const OptionEditorRow& entry, QWidget* editor, const app::GlobalOptions& options);
// Stores the editor's value in the record (read-only rows leave it alone).
void takeOption(const OptionEditorRow& entry, const QWidget* editor, app::GlobalOptions& options);

// A button that shows a colour (a swatch and its #rrggbb name) and offers the colour dialog.
class CColourButton : public QPushButton {
    Q_OBJECT
public:
    explicit CColourButton(QWidget* parent = nullptr);
    QColor colour() const { return m_colour; }
    void setColour(const QColor& colour);

signals:
    void colourChanged(const QColor& colour);

private:
    void choose();

    QColor m_colour;
};

} // namespace trayClient
