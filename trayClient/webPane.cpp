#include "trayClient/webPane.h"

#include "lib/log/log.h"
#include "lib/log/msgGroup.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QVBoxLayout>
#include <QWebEnginePage>
#include <QWebEngineView>

#include <unistd.h>

#include <utility>

namespace trayClient {

namespace {

msglog::MsgGroupRegistration g_webGroup("WebPages");

const char* const kNoSandbox = "QTWEBENGINE_DISABLE_SANDBOX";

std::string latin1(const QUrl& url) { return url.toString().toLatin1().toStdString(); }

bool runsAsRoot() { return geteuid() == 0; }

// The address without what only moves inside one page, for comparing documents.
QUrl documentOf(const QUrl& url) { return url.adjusted(QUrl::RemoveFragment | QUrl::RemoveQuery); }

} // namespace

// The pane's page: asks the pane where every navigation goes and keeps only those that stay.
class CWebPage : public QWebEnginePage {
public:
    CWebPage(CWebPane& pane, QObject* parent) : QWebEnginePage(parent), m_pane(pane) {}

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override {
        const auto route = CWebPane::routeFor(url, m_pane.m_loopbackPorts, m_pane.m_programFile);
        if (route == CWebPane::Route::Inside) {
            if (isMainFrame)
                m_pane.m_current = url;
            return true;
        }
        // A frame inside the page that loads another site is refused without a browser
        // window: only what the user follows in the page itself goes out.
        if (route == CWebPane::Route::Browser && isMainFrame)
            m_pane.follow(url, type == NavigationTypeLinkClicked);
        else
            PELSU_LOG(g_webGroup, "- Not shown: " << latin1(url));
        return false;
    }
    // A link that asks for a window of its own (target="_blank", window.open): a page that
    // exists only to learn the address, which then goes where its route says.
    QWebEnginePage* createWindow(WebWindowType) override;

private:
    CWebPane& m_pane;
};

namespace {

class CNewWindowPage : public QWebEnginePage {
public:
    CNewWindowPage(CWebPane& pane, QObject* parent) : QWebEnginePage(parent), m_pane(pane) {}

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType, bool) override {
        if (!m_done) {
            m_done = true;
            // Queued, so that the pane acts after the engine is done with this page.
            QMetaObject::invokeMethod(
                &m_pane, [pane = &m_pane, url] { pane->showUrl(url); }, Qt::QueuedConnection);
            deleteLater();
        }
        return false;
    }

private:
    CWebPane& m_pane;
    bool m_done = false;
};

} // namespace

QWebEnginePage* CWebPage::createWindow(WebWindowType) { return new CNewWindowPage(m_pane, this); }

CWebPane::CWebPane(QList<int> loopbackPorts, QWidget* parent)
    : QWidget(parent), m_loopbackPorts(std::move(loopbackPorts)), m_layout(new QVBoxLayout(this)) {
    m_layout->setContentsMargins(0, 0, 0, 0);
}

CWebPane::~CWebPane() = default;

void CWebPane::setLoopbackPorts(QList<int> ports) { m_loopbackPorts = std::move(ports); }

void CWebPane::showUrl(const QUrl& url) {
    if (follow(url, false) == Route::Refused)
        PELSU_LOG(g_webGroup, "- Not shown: " << latin1(url));
}

void CWebPane::showFile(const QString& path) {
    const QUrl url = QUrl::fromLocalFile(path);
    m_programFile = documentOf(url);
    ensureView();
    m_current = url;
    m_view->load(url);
}

void CWebPane::reload() {
    if (!m_view || m_current.isEmpty())
        return;
    // A load rather than the engine's reload: the engine may keep a file page it has cached.
    m_view->load(m_current);
}

CWebPane::Route CWebPane::follow(const QUrl& url, bool userAsked) {
    const Route route = routeFor(url, m_loopbackPorts, m_programFile);
    if (route == Route::Browser) {
        PELSU_LOG(g_webGroup, (userAsked ? "Link" : "Address")
                                  << " opened in the browser: " << latin1(url));
        QDesktopServices::openUrl(url);
        emit openedInBrowser(url);
    } else if (route == Route::Inside) {
        ensureView();
        m_current = url;
        m_view->load(url);
    }
    return route;
}

void CWebPane::ensureView() {
    if (m_view)
        return;
    if (runsAsRoot() && qgetenv(kNoSandbox) == "1")
        PELSU_LOG(g_webGroup, "The program runs as root: web pages are shown without the "
                              "browser engine's sandbox.");
    m_view = new QWebEngineView(this);
    m_page = new CWebPage(*this, m_view);
    m_view->setPage(m_page);
    connect(m_view, &QWebEngineView::loadFinished, this, &CWebPane::loadFinished);
    m_layout->addWidget(m_view);
}

bool CWebPane::staysInside(const QUrl& url, int loopbackPort) {
    if (!url.isValid() || url.scheme().toLower() != "http" || !url.userInfo().isEmpty())
        return false;
    const QString host = url.host().toLower();
    return (host == "127.0.0.1" || host == "localhost") && url.port(80) == loopbackPort;
}

CWebPane::Route CWebPane::routeFor(const QUrl& url, const QList<int>& loopbackPorts,
                                   const QUrl& programFile) {
    if (!url.isValid())
        return Route::Refused;
    const QString scheme = url.scheme().toLower();
    if (scheme == "http" || scheme == "https") {
        for (int port : loopbackPorts)
            if (staysInside(url, port))
                return Route::Inside;
        return url.host().isEmpty() ? Route::Refused : Route::Browser;
    }
    if (scheme == "file")
        return !programFile.isEmpty() && documentOf(url) == documentOf(programFile)
                   ? Route::Inside
                   : Route::Refused;
    // The engine starts every view on the empty page.
    if (url.toString() == "about:blank")
        return Route::Inside;
    return Route::Refused;
}

bool CWebPane::prepareEngineEnvironment() {
    // The engine shares its drawing context with the widgets; Qt wants this set before the
    // application object exists.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    if (!runsAsRoot() || qEnvironmentVariableIsSet(kNoSandbox))
        return false;
    qputenv(kNoSandbox, "1");
    return true;
}

} // namespace trayClient

#include "moc_webPane.cpp" // NOLINT(bugprone-suspicious-include)
