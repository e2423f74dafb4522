// The window of one app plugin: its main page, served by the app-plugin server on the loopback
// interface, in a web pane (links to other sites open in the user's browser).
#pragma once

#include <QString>
#include <QUrl>
#include <QWidget>

namespace trayClient {

class CWebPane;

class CPluginFrame : public QWidget {
    Q_OBJECT
public:
    // Loads http://127.0.0.1:<pluginServerPort>/<pluginId>/ at once. Pages of the plugin
    // server stay in the window; pane().setLoopbackPorts adds others (the app server).
    CPluginFrame(const QString& pluginId, int pluginServerPort, QWidget* parent = nullptr);

    const QString& pluginId() const { return m_pluginId; }
    // The address of the plugin's main page.
    static QUrl mainPageUrl(const QString& pluginId, int pluginServerPort);
    // Shows the plugin's main page again (after the plugin server moved to another port).
    void showMainPage(int pluginServerPort);
    CWebPane& pane() const { return *m_pane; }

private:
    QString m_pluginId;
    int m_port;
    CWebPane* m_pane;
};

} // namespace trayClient
