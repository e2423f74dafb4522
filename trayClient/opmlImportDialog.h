// Importing an OPML subscription list: every feed of the file in a list of check boxes, so the
// user picks which to subscribe to. Feeds already subscribed start unchecked and say so;
// addresses that can't become channels are shown with their reason and can't be checked.
// Also the export of the subscriptions to an OPML file.
#pragma once

#include "app/opml.h"

#include <QDialog>
#include <QString>

#include <vector>

class QLabel;
class QListWidget;
class QPushButton;

namespace app {
struct Environment;
} // namespace app

namespace channels {
class ChannelManager;
} // namespace channels

namespace trayClient {

class COpmlImportDialog : public QDialog {
    Q_OBJECT
public:
    // Reads the file at once; a file that can't be read leaves the list empty, shows why
    // and keeps OK disabled.
    COpmlImportDialog(channels::ChannelManager& manager, const app::Environment& environment,
                      QString file, QWidget* parent = nullptr);

    // The file's entries, in the list's order.
    const std::vector<app::OpmlEntry>& entries() const { return m_entries; }
    // Why the file could not be read, or empty.
    const QString& loadError() const { return m_loadError; }
    // The list of check boxes, one row per entry.
    QListWidget* list() const { return m_list; }
    void selectAll() { setAllChecked(true); }
    void selectNone() { setAllChecked(false); }

    // Subscribes to the checked entries as import-opml does and shows the summary.
    void accept() override;
    // The summary of the import ("Imported 2 channel(s); ..."), empty before it.
    const QString& summary() const { return m_summary; }

signals:
    void imported(const QString& summary);

private:
    void fillList();
    void setAllChecked(bool checked);

    channels::ChannelManager& m_manager;
    QString m_file;
    std::vector<app::OpmlEntry> m_entries;
    QString m_loadError;
    QString m_summary;
    QListWidget* m_list;
    QLabel* m_message;
    QPushButton* m_ok;
};

// Writes the manager's subscriptions to the file as OPML; returns why it could not, or empty.
QString exportOpmlToFile(const channels::ChannelManager& manager, const QString& path);

} // namespace trayClient
