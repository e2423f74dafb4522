#include "trayClient/clientDialogs.h"

#include "app/environment.h"
#include "channels/appPluginManager.h"
#include "channels/channelManager.h"
#include "trayClient/appPluginParametersDialog.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/channelFrame.h"
#include "trayClient/channelPropertiesDialog.h"
#include "trayClient/controlCenter.h"
#include "trayClient/globalOptionsDialog.h"
#include "trayClient/mainFrame.h"
#include "trayClient/newChannelWizard.h"
#include "trayClient/opmlImportDialog.h"
#include "trayClient/pluginFrame.h"
#include "trayClient/webPane.h"

#include <QFileDialog>
#include <QMessageBox>
#include <QToolBar>
#include <QVBoxLayout>

namespace trayClient {

namespace {
const char* const kOpmlFilter = "OPML files (*.opml *.xml);;All files (*)";
}

CClientDialogs::CClientDialogs(channels::ChannelManager& manager,
                               ChannelDesktopSettingsTable& settings, app::Environment& environment,
                               CMainFrame& mainFrame)
    : m_manager(manager), m_settings(settings), m_environment(environment), m_mainFrame(mainFrame) {
}

void CClientDialogs::connectMainFrame() {
    m_mainFrame.setChannelWindowFactory(
        [this](const QString& id) { return makeChannelWindow(id); });
    m_mainFrame.setPluginWindowFactory([this](const QString& id) { return makePluginWindow(id); });
    connect(&m_mainFrame, &CMainFrame::newChannelRequested, this, [this] { newChannel(); });
    connect(&m_mainFrame, &CMainFrame::channelPropertiesRequested, this,
            &CClientDialogs::channelProperties);
    connect(&m_mainFrame, &CMainFrame::globalOptionsRequested, this,
            &CClientDialogs::globalOptions);
    connect(&m_mainFrame, &CMainFrame::importOpmlRequested, this, &CClientDialogs::importOpml);
    connect(&m_mainFrame, &CMainFrame::exportOpmlRequested, this, &CClientDialogs::exportOpml);
    connect(this, &CClientDialogs::itemsViewedChanged, &m_mainFrame,
            &CMainFrame::channelItemsViewedChanged);
}

QWidget* CClientDialogs::makeChannelWindow(const QString& channelId) {
    channels::Channel* channel = m_manager.findChannel(channelId.toStdString());
    if (!channel)
        return nullptr;
    auto* window =
        new CChannelFrame(*channel, m_settings, m_environment.options, m_environment.paths.userDir);
    connect(&m_mainFrame, &CMainFrame::channelUpdateEnded, window,
            &CChannelFrame::onChannelUpdateEnded);
    connect(window, &CChannelFrame::itemsViewedChanged, this, &CClientDialogs::itemsViewedChanged);
    connect(this, &CClientDialogs::optionsChanged, window,
            [this, window] { window->applyOptions(m_environment.options); });
    return window;
}

QWidget* CClientDialogs::makePluginWindow(const QString& pluginId) {
    // The plugin's page under a tool bar with its parameters.
    auto* window = new QWidget;
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* tools = new QToolBar(window);
    QAction* parameters = tools->addAction("Plugin Parameters…", this,
                                           [this, pluginId] { appPluginParameters(pluginId); });
    parameters->setToolTip("Edit the plugin's parameters");
    parameters->setProperty("accessibleName", "Plugin parameters");
    auto* page = new CPluginFrame(pluginId, m_manager.appPluginServerPort(), window);
    page->pane().setLoopbackPorts(
        {m_manager.appPluginServerPort(), m_environment.options.appServerPortNo});
    layout->addWidget(tools);
    layout->addWidget(page, 1);
    return window;
}

void CClientDialogs::newChannel(const QString& address) {
    auto* wizard =
        new CNewChannelWizard(m_manager, m_settings, m_environment, &m_mainFrame, address);
    wizard->setAttribute(Qt::WA_DeleteOnClose);
    connect(wizard, &CNewChannelWizard::channelAdded, &m_mainFrame, &CMainFrame::refreshChannel);
    m_mainFrame.showAndRaise();
    wizard->show();
}

void CClientDialogs::channelProperties(const QString& channelId) {
    channels::Channel* channel = m_manager.findChannel(channelId.toStdString());
    if (!channel)
        return;
    CChannelPropertiesDialog dialog(*channel, m_settings, &m_mainFrame,
                                    m_mainFrame.controlCenter()->channelError(channelId));
    if (dialog.exec() != QDialog::Accepted)
        return;
    if (dialog.sourceChanged())
        m_manager.requestUpdate(channelId.toStdString());
    m_mainFrame.refreshChannel(channelId);
}

void CClientDialogs::globalOptions() {
    CGlobalOptionsDialog dialog(m_environment.options, m_environment.paths.configFile,
                                m_environment.paths.globalIniFile, &m_mainFrame);
    if (dialog.exec() != QDialog::Accepted)
        return;
    m_mainFrame.applyOptions(m_environment.options);
    const app::GlobalOptions& options = m_environment.options;
    m_manager.setFeedFormats(options.feedFormats());
    m_manager.setLiveOptions(options.disableInternet, options.scriptTimeout,
                             options.logChannelProcessing);
    channels::AppPluginManager::instance().setScriptTimeout(options.scriptTimeout);
    emit optionsChanged();
}

void CClientDialogs::importOpml() {
    const QString file =
        QFileDialog::getOpenFileName(&m_mainFrame, "Import OPML", QString(), kOpmlFilter);
    if (file.isEmpty())
        return;
    COpmlImportDialog dialog(m_manager, m_environment, file, &m_mainFrame);
    dialog.exec();
    m_mainFrame.refreshChannels();
}

void CClientDialogs::exportOpml() {
    const QString file = QFileDialog::getSaveFileName(&m_mainFrame, "Export OPML",
                                                      "subscriptions.opml", kOpmlFilter);
    if (file.isEmpty())
        return;
    const QString problem = exportOpmlToFile(m_manager, file);
    if (!problem.isEmpty())
        QMessageBox::warning(&m_mainFrame, "Export OPML", problem);
}

void CClientDialogs::appPluginParameters(const QString& pluginId) {
    channels::AppPlugin* plugin =
        channels::AppPluginManager::instance().findAppPlugin(pluginId.toStdString());
    if (!plugin)
        return;
    CAppPluginParametersDialog dialog(*plugin, &m_mainFrame);
    dialog.exec();
}

} // namespace trayClient

#include "moc_clientDialogs.cpp" // NOLINT(bugprone-suspicious-include)
