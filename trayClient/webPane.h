// A pane that shows web pages: a channel's summary page (a local file) and the app plugins'
// pages (served on the loopback interface). The browser engine is heavy, so the view inside
// is made only when the first page is shown: a program that sits in the tray never starts it.
//
// Where a link leads is decided here, not by the page: pages of the program's own loopback
// servers and the files the program itself loads stay in the pane; other web sites open in
// the user's browser and the pane keeps its page; every other scheme is refused, so a feed's
// page can never open a local file or a launcher.
#pragma once

#include "trayClient/webViewModule.h"

#include <QList>
#include <QUrl>
#include <QWidget>

#include <functional>
#include <memory>

class QVBoxLayout;

namespace trayClient {

class CWebPane : public QWidget, private WebViewHost {
    Q_OBJECT
public:
    // Where a navigation goes.
    enum class Route { Inside, Browser, Refused };

    // loopbackPorts: the ports of the program's own servers on 127.0.0.1 (the app-plugin
    // server, the app server) whose pages stay inside.
    explicit CWebPane(QList<int> loopbackPorts = {}, QWidget* parent = nullptr);
    ~CWebPane() override;

    // Shows a web address (starting the browser engine when it has not run yet).
    void showUrl(const QUrl& url);
    // Shows a local file that the program wrote; only the file last given this way may be
    // shown from the file system.
    void showFile(const QString& path);
    // Shows the page again from its source (a summary file rewritten in place).
    void reload();
    // Replaces the loopback ports whose pages stay inside.
    void setLoopbackPorts(QList<int> ports);
    const QList<int>& loopbackPorts() const { return m_loopbackPorts; }

    // Whether the browser engine's view exists (a page was shown).
    bool hasView() const { return m_view != nullptr; }
    // The view, or null before the first page (or when the engine could not be loaded).
    WebView* view() const { return m_view.get(); }
    // Why pages can't be shown (the engine's module did not load), or empty.
    const QString& engineProblem() const { return m_engineProblem; }
    // The address of the page shown or being loaded (empty before the first page).
    QUrl currentUrl() const { return m_current; }

    // The rule for one navigation. programFile is the file the program loaded itself (empty
    // when none): it is the only file: address that stays inside.
    static Route routeFor(const QUrl& url, const QList<int>& loopbackPorts,
                          const QUrl& programFile = {});
    // True when the address is a page of one of the program's loopback servers
    // (http://127.0.0.1:<port>/... or http://localhost:<port>/...).
    static bool staysInside(const QUrl& url, int loopbackPort);

    // Prepares the process for the browser engine; call before the QApplication exists.
    // All pages share one renderer process unless QTWEBENGINE_CHROMIUM_FLAGS sets a limit, and
    // are drawn in software unless QT_QUICK_BACKEND says otherwise.
    // Returns true when the engine's sandbox was switched off because the program runs as
    // root (the sandbox refuses to start as root).
    static bool prepareEngineEnvironment();
    // The engine's module: $PELSU_WEBVIEW_MODULE, else beside the program or in ../lib of
    // it, else where the build put it. Empty when none exists.
    static QString engineModulePath();
    // Whether this process has loaded the browser engine.
    static bool engineStarted();
    // Called on the UI thread after the engine started a view and after its pages load: the
    // engine installs process-wide settings of its own (signal handlers) that the program
    // may need to put back.
    static void setEngineStartedHook(std::function<void()> hook);

signals:
    // A page finished loading (ok false when it failed).
    void loadFinished(bool ok);
    // A link went to the user's browser.
    void openedInBrowser(const QUrl& url);

private:
    // WebViewHost
    bool acceptNavigation(const QUrl& url, bool isMainFrame, bool linkClicked) override;
    void newWindowRequested(const QUrl& url) override;
    void pageLoaded(bool ok) override;

    // Makes the view (loading the engine's module the first time); false when it can't.
    bool ensureView();
    // Carries out a navigation that the page did not keep: opens it in the browser or loads
    // it here, as its route says. Returns the route.
    Route follow(const QUrl& url, bool userAsked);

    QList<int> m_loopbackPorts;
    QUrl m_programFile;
    QUrl m_current;
    QVBoxLayout* m_layout;
    std::unique_ptr<WebView> m_view;
    QString m_engineProblem;
};

} // namespace trayClient
