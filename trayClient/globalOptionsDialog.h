// The "Global Options" dialog: every key of the user's global options on pages (general and
// windows; notifications and sounds; fonts and colours with a preview of each pane; local
// listeners and ports; scripts, downloads and limits) and global.ini's script file types.
// The editors keep each value within its bounds. OK saves the options to config.ini (the
// read-only keys are never written) and, when they may be changed, the script file types to
// global.ini; only when both succeed does the caller's record change and the dialog close.
// The caller reads the record after exec() returns Accepted.
#pragma once

#include "app/globalOptions.h"
#include "trayClient/soundPlayer.h"

#include <QDialog>

#include <map>
#include <string>
#include <utility>
#include <vector>

class QLabel;
class QListWidget;
class QTabWidget;

namespace trayClient {

struct OptionEditorRow;
class CScriptFileTypesPage;

class CGlobalOptionsDialog : public QDialog {
    Q_OBJECT
public:
    CGlobalOptionsDialog(app::GlobalOptions& options, std::string configFile,
                         std::string globalIniFile, QWidget* parent = nullptr);
    ~CGlobalOptionsDialog() override;

    // The editor of a key of "Global Options" (its object name is the key); null when unknown.
    QWidget* editorFor(const QString& key) const;
    CScriptFileTypesPage* scriptFileTypesPage() const { return m_scriptPage; }
    // Why the last OK did not close the dialog; empty when it did or was never pressed.
    QString errorText() const;

    // Saves as described above; on a failure, or when the two local servers are given one
    // port, the reason is shown and the dialog stays open.
    void accept() override;

private:
    QWidget* makePage(int page);
    QWidget* withPlayButton(QWidget* editor);
    void addPreviews();
    void refreshPreviews();
    void playErrorSound();
    void showError(const QString& text);

    app::GlobalOptions& m_options;
    std::string m_configFile;
    std::string m_globalIniFile;
    std::map<QString, std::pair<const OptionEditorRow*, QWidget*>> m_editors;
    std::map<QString, QWidget*> m_groups; // the box of each group, by its name
    std::vector<QListWidget*> m_previews;
    QTabWidget* m_tabs;
    CScriptFileTypesPage* m_scriptPage = nullptr;
    QLabel* m_error;
    CSoundPlayer m_sound;
};

} // namespace trayClient
