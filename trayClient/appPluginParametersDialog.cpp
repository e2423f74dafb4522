#include "trayClient/appPluginParametersDialog.h"

#include "channels/appPlugin.h"
#include "channels/exception.h"
#include "trayClient/paramEditors.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QScrollArea>
#include <QVBoxLayout>

namespace trayClient {

namespace {

// The plugin's name, author and notes above its parameters.
QLabel* describe(const channels::AppPlugin& plugin, QWidget* parent) {
    QString text =
        QStringLiteral("<b>%1</b>").arg(QString::fromLatin1(plugin.displayName()).toHtmlEscaped());
    QString author = QString::fromLatin1(plugin.authorName());
    if (!plugin.authorEmailAddress().empty())
        author += QStringLiteral(" <") + QString::fromLatin1(plugin.authorEmailAddress()) + u'>';
    if (!author.trimmed().isEmpty())
        text += QStringLiteral("<br>") +
                CAppPluginParametersDialog::tr("By %1").arg(author.trimmed().toHtmlEscaped());
    if (!plugin.pluginNotes().empty())
        text += QStringLiteral("<p>") + QString::fromLatin1(plugin.pluginNotes()).toHtmlEscaped() +
                QStringLiteral("</p>");
    auto* label = new QLabel(text, parent);
    label->setTextFormat(Qt::RichText);
    label->setWordWrap(true);
    return label;
}

} // namespace

CAppPluginParametersDialog::CAppPluginParametersDialog(channels::AppPlugin& plugin, QWidget* parent)
    : QDialog(parent), m_plugin(plugin),
      m_form(new CParamForm(plugin.pluginParamDefs(), plugin.pluginParamValues())),
      m_error(new QLabel(this)) {
    const QString name = QString::fromLatin1(plugin.displayName());
    setWindowTitle(tr("Parameters of %1").arg(name));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(describe(plugin, this));
    if (m_form->isEmpty())
        layout->addWidget(new QLabel(tr("This plugin has no parameters."), this));
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setWidget(m_form);
    scroll->setVisible(!m_form->isEmpty());
    layout->addWidget(scroll, 1);
    m_error->setWordWrap(true);
    m_error->setStyleSheet(QStringLiteral("color: #b00000"));
    m_error->hide();
    layout->addWidget(m_error);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &CAppPluginParametersDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &CAppPluginParametersDialog::reject);
    layout->addWidget(buttons);
}

QString CAppPluginParametersDialog::errorText() const { return m_error->text(); }

void CAppPluginParametersDialog::accept() {
    const channels::ParamValues before = m_plugin.pluginParamValues();
    m_plugin.setPluginParamValues(m_form->values());
    try {
        m_plugin.saveParamValues(m_plugin.configFilename());
    } catch (const channels::Exception& error) {
        // The plugin keeps what its file holds, so the two never disagree.
        m_plugin.setPluginParamValues(before);
        m_error->setText(
            tr("Couldn't save the plugin's parameters: %1").arg(QString::fromLatin1(error.what())));
        m_error->show();
        return;
    }
    m_error->clear();
    m_error->hide();
    QDialog::accept();
}

} // namespace trayClient

#include "moc_appPluginParametersDialog.cpp" // NOLINT(bugprone-suspicious-include)
