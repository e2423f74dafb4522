// The "Script File Types" page of the options dialog: global.ini's named file types with
// their extensions, and the command that runs a script of each extension. global.ini lies
// beside the program and is shared by every user, so the page edits it only when its folder
// can be written, and otherwise shows it read only with a line saying why.
#pragma once

#include "app/globalOptions.h"

#include <QWidget>

#include <string>

class QTableWidget;

namespace trayClient {

// Why the script file types of this global.ini can't be changed; empty when they can (its
// folder exists and this user may write there, which saving needs: the file is replaced by a
// new one written beside it).
QString scriptFileTypesReadOnlyReason(const std::string& globalIniFile);

class CScriptFileTypesPage : public QWidget {
    Q_OBJECT
public:
    CScriptFileTypesPage(const app::GlobalOptions& options, const std::string& globalIniFile,
                         QWidget* parent = nullptr);

    bool isEditable() const { return m_editable; }
    // Columns "File type", "Extensions".
    QTableWidget* typesTable() const { return m_types; }
    // Columns "Extension", "Command".
    QTableWidget* commandsTable() const { return m_commands; }
    // Replaces the record's tables with the rows shown; rows without a name or an extension
    // are left out, and extensions are kept lower case with their dot, as they are loaded.
    void apply(app::GlobalOptions& options) const;

private:
    QWidget* tableWithButtons(QTableWidget* table);

    bool m_editable;
    QTableWidget* m_types;
    QTableWidget* m_commands;
};

} // namespace trayClient
