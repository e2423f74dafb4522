#include "trayClient/pluginFrame.h"

#include "trayClient/webPane.h"

#include <QUrl>
#include <QVBoxLayout>

namespace trayClient {

CPluginFrame::CPluginFrame(const QString& pluginId, int pluginServerPort, QWidget* parent)
    : QWidget(parent), m_pluginId(pluginId), m_port(pluginServerPort),
      m_pane(new CWebPane({pluginServerPort}, this)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_pane);
    setWindowTitle(pluginId);
    m_pane->showUrl(mainPageUrl(pluginId, pluginServerPort));
}

QUrl CPluginFrame::mainPageUrl(const QString& pluginId, int pluginServerPort) {
    QUrl url;
    url.setScheme("http");
    url.setHost("127.0.0.1");
    url.setPort(pluginServerPort);
    url.setPath("/" + pluginId + "/");
    return url;
}

void CPluginFrame::showMainPage(int pluginServerPort) {
    QList<int> ports = m_pane->loopbackPorts();
    ports.removeAll(m_port);
    ports.append(pluginServerPort);
    m_pane->setLoopbackPorts(ports);
    m_port = pluginServerPort;
    m_pane->showUrl(mainPageUrl(m_pluginId, pluginServerPort));
}

} // namespace trayClient

#include "moc_pluginFrame.cpp" // NOLINT(bugprone-suspicious-include)
