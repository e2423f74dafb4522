#include "trayClient/opmlImportDialog.h"

#include "app/terminalText.h"
#include "channels/channelManager.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

#include <fstream>

namespace trayClient {

namespace {

QString fromEngine(const std::string& text) { return QString::fromLatin1(text); }

} // namespace

COpmlImportDialog::COpmlImportDialog(channels::ChannelManager& manager, const app::Environment&,
                                     QString file, QWidget* parent)
    : QDialog(parent), m_manager(manager), m_file(std::move(file)), m_list(new QListWidget(this)),
      m_message(new QLabel(this)) {
    setWindowTitle(tr("Import subscriptions"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Subscribe to the checked feeds of %1:").arg(m_file), this));
    layout->addWidget(m_list);
    auto* selection = new QHBoxLayout;
    auto* all = new QPushButton(tr("Select all"), this);
    auto* none = new QPushButton(tr("Select none"), this);
    selection->addWidget(all);
    selection->addWidget(none);
    selection->addStretch();
    layout->addLayout(selection);
    m_message->setWordWrap(true);
    layout->addWidget(m_message);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    m_ok = buttons->button(QDialogButtonBox::Ok);
    layout->addWidget(buttons);
    connect(all, &QPushButton::clicked, this, [this] { selectAll(); });
    connect(none, &QPushButton::clicked, this, [this] { selectNone(); });
    connect(buttons, &QDialogButtonBox::accepted, this, &COpmlImportDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    try {
        m_entries = app::readOpml(m_file.toStdString());
    } catch (const std::exception& failure) {
        m_loadError = fromEngine(failure.what());
    }
    m_message->setText(m_loadError);
    m_ok->setEnabled(m_loadError.isEmpty());
    fillList();
}

void COpmlImportDialog::fillList() {
    const std::set<std::string> subscribed = app::subscribedAddresses(m_manager);
    for (const app::OpmlEntry& entry : m_entries) {
        QString text =
            fromEngine(entry.title.empty() ? entry.address : entry.title + " - " + entry.address);
        auto* item = new QListWidgetItem(m_list);
        Qt::CheckState state = Qt::Checked;
        if (!entry.problem.empty()) {
            text += " (" + fromEngine(entry.problem) + ")";
            item->setFlags(item->flags() & ~Qt::ItemIsEnabled);
            state = Qt::Unchecked;
        } else if (subscribed.count(entry.address) > 0) {
            text += tr(" (already subscribed)");
            state = Qt::Unchecked;
        }
        item->setText(text);
        item->setCheckState(state);
    }
}

void COpmlImportDialog::setAllChecked(bool checked) {
    for (int row = 0; row < m_list->count(); ++row)
        if (QListWidgetItem* item = m_list->item(row); item->flags() & Qt::ItemIsEnabled)
            item->setCheckState(checked ? Qt::Checked : Qt::Unchecked);
}

void COpmlImportDialog::accept() {
    std::vector<app::OpmlEntry> chosen;
    for (int row = 0; row < m_list->count(); ++row)
        if (m_list->item(row)->checkState() == Qt::Checked)
            chosen.push_back(m_entries[static_cast<std::size_t>(row)]);
    try {
        m_summary = fromEngine(app::opmlImportSummary(app::importOpmlEntries(m_manager, chosen)));
    } catch (const std::exception& failure) {
        m_message->setText(fromEngine(failure.what()));
        return; // the channels added before the failure stay; the rest can be tried again
    }
    emit imported(m_summary);
    auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), m_summary, QMessageBox::Ok,
                                parentWidget());
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->show();
    QDialog::accept();
}

QString exportOpmlToFile(const channels::ChannelManager& manager, const QString& path) {
    const std::string file = path.toStdString();
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << app::writeOpml(app::opmlEntriesOf(manager));
    out.close();
    if (!out)
        return QObject::tr("Can't write file: %1").arg(path);
    return QString();
}

} // namespace trayClient
