#include "trayClient/scriptFileTypesPage.h"

#include "lib/misc/text.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include <filesystem>
#include <unistd.h>

namespace trayClient {

namespace {

QTableWidget* makeTable(const QStringList& headers, QWidget* parent) {
    auto* table = new QTableWidget(0, static_cast<int>(headers.size()), parent);
    table->setHorizontalHeaderLabels(headers);
    table->horizontalHeader()->setStretchLastSection(true);
    table->verticalHeader()->hide();
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    return table;
}

void addRow(QTableWidget* table, const std::string& first, const std::string& second) {
    const int row = table->rowCount();
    table->insertRow(row);
    table->setItem(row, 0, new QTableWidgetItem(QString::fromLatin1(first)));
    table->setItem(row, 1, new QTableWidgetItem(QString::fromLatin1(second)));
}

std::string cell(const QTableWidget* table, int row, int column) {
    const QTableWidgetItem* item = table->item(row, column);
    return item ? item->text().trimmed().toLatin1().toStdString() : std::string();
}

// As global.ini's associations are read: lower case, with the dot.
std::string extensionKey(std::string extension) {
    extension = misc::lowered(extension);
    if (!extension.empty() && extension[0] != '.')
        extension.insert(0, ".");
    return extension;
}

} // namespace

QString scriptFileTypesReadOnlyReason(const std::string& globalIniFile) {
    if (globalIniFile.empty())
        return QObject::tr("The program's global.ini is not known, so the script file types "
                           "can't be changed here.");
    std::filesystem::path folder = std::filesystem::path(globalIniFile).parent_path();
    if (folder.empty())
        folder = ".";
    std::error_code error;
    if (!std::filesystem::is_directory(folder, error) || ::access(folder.c_str(), W_OK) != 0)
        return QObject::tr("The folder of global.ini (%1) can't be written, so the script file "
                           "types are shown read only.")
            .arg(QString::fromLocal8Bit(folder.c_str()));
    return {};
}

CScriptFileTypesPage::CScriptFileTypesPage(const app::GlobalOptions& options,
                                           const std::string& globalIniFile, QWidget* parent)
    : QWidget(parent), m_editable(scriptFileTypesReadOnlyReason(globalIniFile).isEmpty()),
      m_types(makeTable({tr("File type"), tr("Extensions")}, this)),
      m_commands(makeTable({tr("Extension"), tr("Command")}, this)) {
    for (const auto& [name, extensions] : options.scriptFileTypes)
        addRow(m_types, name, extensions);
    for (const auto& [extension, command] : options.scriptFileTypeCommands)
        addRow(m_commands, extension, command);

    auto* layout = new QVBoxLayout(this);
    if (!m_editable) {
        auto* why = new QLabel(scriptFileTypesReadOnlyReason(globalIniFile), this);
        why->setObjectName(QStringLiteral("readOnlyReason"));
        why->setWordWrap(true);
        layout->addWidget(why);
    }
    layout->addWidget(new QLabel(tr("The file types a script plugin may have:"), this));
    layout->addWidget(tableWithButtons(m_types), 1);
    layout->addWidget(new QLabel(tr("The command that runs a script of each extension "
                                    "(\"%1\" is the script, \"%*\" its arguments):"),
                                 this));
    layout->addWidget(tableWithButtons(m_commands), 1);
}

QWidget* CScriptFileTypesPage::tableWithButtons(QTableWidget* table) {
    if (!m_editable) {
        table->setEditTriggers(QAbstractItemView::NoEditTriggers);
        return table;
    }
    auto* box = new QWidget(this);
    auto* layout = new QHBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(table, 1);
    auto* buttons = new QVBoxLayout;
    auto* add = new QPushButton(tr("Add"), box);
    auto* remove = new QPushButton(tr("Remove"), box);
    buttons->addWidget(add);
    buttons->addWidget(remove);
    buttons->addStretch();
    layout->addLayout(buttons);
    connect(add, &QPushButton::clicked, table, [table] {
        addRow(table, {}, {});
        table->editItem(table->item(table->rowCount() - 1, 0));
    });
    connect(remove, &QPushButton::clicked, table, [table] {
        if (table->currentRow() >= 0)
            table->removeRow(table->currentRow());
    });
    return box;
}

void CScriptFileTypesPage::apply(app::GlobalOptions& options) const {
    options.scriptFileTypes.clear();
    for (int row = 0; row < m_types->rowCount(); ++row)
        if (const std::string name = cell(m_types, row, 0); !name.empty())
            options.scriptFileTypes.emplace_back(name, cell(m_types, row, 1));
    options.scriptFileTypeCommands.clear();
    for (int row = 0; row < m_commands->rowCount(); ++row)
        if (const std::string extension = extensionKey(cell(m_commands, row, 0));
            !extension.empty())
            options.scriptFileTypeCommands[extension] = cell(m_commands, row, 1);
}

} // namespace trayClient

#include "moc_scriptFileTypesPage.cpp" // NOLINT(bugprone-suspicious-include)
