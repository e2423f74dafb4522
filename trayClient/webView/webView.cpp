// The browser engine behind a web pane: a QWebEngineView whose page asks the pane where every
// navigation goes. Built as a module that the client loads with its first page.
#include "trayClient/webViewModule.h"

#include <QPointer>
#include <QWebEnginePage>
#include <QWebEngineView>

// The engine's own start (exported by its library, declared in no public header): it makes
// the GL context the engine shares with the window. A program that links the engine runs it
// as the application starts; this module runs it with the first view instead.
namespace QtWebEngineCore {
void initialize();
}

namespace trayClient {
namespace {

// A page made only to learn where a link that wants a window of its own goes.
class NewWindowPage : public QWebEnginePage {
public:
    NewWindowPage(WebViewHost& host, QObject* parent) : QWebEnginePage(parent), m_host(host) {}

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType, bool) override {
        if (!m_done) {
            m_done = true;
            // Queued, so that the host acts after the engine is done with this page.
            QMetaObject::invokeMethod(
                parent(), [host = &m_host, url] { host->newWindowRequested(url); },
                Qt::QueuedConnection);
            deleteLater();
        }
        return false;
    }

private:
    WebViewHost& m_host;
    bool m_done = false;
};

class HostedPage : public QWebEnginePage {
public:
    HostedPage(WebViewHost& host, QObject* parent) : QWebEnginePage(parent), m_host(host) {}

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override {
        return m_host.acceptNavigation(url, isMainFrame, type == NavigationTypeLinkClicked);
    }
    QWebEnginePage* createWindow(WebWindowType) override { return new NewWindowPage(m_host, this); }

private:
    WebViewHost& m_host;
};

void startEngine() {
    static const bool started = [] {
        QtWebEngineCore::initialize();
        return true;
    }();
    (void)started;
}

class EngineView : public WebView {
public:
    EngineView(WebViewHost& host, QWidget* parent)
        : m_view((startEngine(), new QWebEngineView(parent))) {
        m_view->setPage(new HostedPage(host, m_view));
        QObject::connect(m_view, &QWebEngineView::loadFinished,
                         [&host](bool ok) { host.pageLoaded(ok); });
    }
    ~EngineView() override { delete m_view.data(); }
    EngineView(const EngineView&) = delete;
    EngineView& operator=(const EngineView&) = delete;

    QWidget* widget() override { return m_view; }
    void load(const QUrl& url) override { m_view->load(url); }
    QUrl url() const override { return m_view->url(); }
    void runJavaScript(const QString& script) override { m_view->page()->runJavaScript(script); }

private:
    // The pane deletes its view before its children go; the guard covers any other order.
    QPointer<QWebEngineView> m_view;
};

} // namespace
} // namespace trayClient

extern "C" Q_DECL_EXPORT trayClient::WebView* pelsuCreateWebView(trayClient::WebViewHost& host,
                                                                 QWidget* parent) {
    return new trayClient::EngineView(host, parent);
}
