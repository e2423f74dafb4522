#include "trayClient/webPane.h"

#include "lib/log/log.h"
#include "lib/log/msgGroup.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QLibrary>
#include <QVBoxLayout>

#include <unistd.h>

#include <utility>

namespace trayClient {

namespace {

msglog::MsgGroupRegistration g_webGroup("WebPages");

const char* const kNoSandbox = "QTWEBENGINE_DISABLE_SANDBOX";
const char* const kModuleName = "libpelsu_webView.so";
const char* const kEngineFlags = "QTWEBENGINE_CHROMIUM_FLAGS";
const char* const kRendererLimit = "--renderer-process-limit";
const char* const kQuickBackend = "QT_QUICK_BACKEND";

CreateWebViewFunction g_createView = nullptr;
std::function<void()>& engineStartedHook() {
    static std::function<void()> hook;
    return hook;
}
void runEngineStartedHook() {
    if (engineStartedHook())
        engineStartedHook()();
}

// The module's entry point, loaded once per process (the library stays loaded).
CreateWebViewFunction loadEngine(QString& problem) {
    CreateWebViewFunction& create = g_createView;
    static QString loadProblem;
    static bool tried = false;
    if (!tried) {
        tried = true;
        const QString path = CWebPane::engineModulePath();
        QLibrary library(path.isEmpty() ? QString(kModuleName) : path);
        create = reinterpret_cast<CreateWebViewFunction>(library.resolve(kCreateWebViewSymbol));
        if (!create)
            loadProblem = library.errorString();
        else
            PELSU_LOG(g_webGroup, "Browser engine loaded: " << path.toStdString());
    }
    problem = loadProblem;
    return create;
}

std::string latin1(const QUrl& url) { return url.toString().toLatin1().toStdString(); }

bool runsAsRoot() { return geteuid() == 0; }

// The address without what only moves inside one page, for comparing documents.
QUrl documentOf(const QUrl& url) { return url.adjusted(QUrl::RemoveFragment | QUrl::RemoveQuery); }

} // namespace

CWebPane::CWebPane(QList<int> loopbackPorts, QWidget* parent)
    : QWidget(parent), m_loopbackPorts(std::move(loopbackPorts)), m_layout(new QVBoxLayout(this)) {
    m_layout->setContentsMargins(0, 0, 0, 0);
}

CWebPane::~CWebPane() = default;

void CWebPane::setLoopbackPorts(QList<int> ports) { m_loopbackPorts = std::move(ports); }

void CWebPane::showUrl(const QUrl& url) {
    if (follow(url, false) == Route::Refused)
        PELSU_LOG_DETAIL(g_webGroup, "- Not shown: " << latin1(url));
}

void CWebPane::showFile(const QString& path) {
    const QUrl url = QUrl::fromLocalFile(path);
    m_programFile = documentOf(url);
    m_current = url;
    if (ensureView())
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
        m_current = url;
        if (ensureView())
            m_view->load(url);
    }
    return route;
}

bool CWebPane::ensureView() {
    if (m_view)
        return true;
    if (!m_engineProblem.isEmpty())
        return false;
    if (runsAsRoot() && qgetenv(kNoSandbox) == "1")
        PELSU_LOG(g_webGroup, "The program runs as root: web pages are shown without the "
                              "browser engine's sandbox.");
    QString problem;
    CreateWebViewFunction makeView = loadEngine(problem);
    if (!makeView) {
        m_engineProblem =
            "Pages can't be shown: the browser engine did not load (" + problem + ").";
        PELSU_LOG(g_webGroup, m_engineProblem.toStdString());
        auto* label = new QLabel(m_engineProblem, this);
        label->setWordWrap(true);
        m_layout->addWidget(label);
        return false;
    }
    m_view.reset(makeView(*this, this));
    runEngineStartedHook();
    m_layout->addWidget(m_view->widget());
    return true;
}

bool CWebPane::acceptNavigation(const QUrl& url, bool isMainFrame, bool linkClicked) {
    const Route route = routeFor(url, m_loopbackPorts, m_programFile);
    if (route == Route::Inside) {
        if (isMainFrame)
            m_current = url;
        return true;
    }
    // A frame inside the page that loads another site is refused without a browser window:
    // only what the user follows in the page itself goes out.
    if (route == Route::Browser && isMainFrame)
        follow(url, linkClicked);
    else
        PELSU_LOG_DETAIL(g_webGroup, "- Not shown: " << latin1(url));
    return false;
}

void CWebPane::newWindowRequested(const QUrl& url) { showUrl(url); }

void CWebPane::pageLoaded(bool ok) {
    runEngineStartedHook();
    emit loadFinished(ok);
}

void CWebPane::setEngineStartedHook(std::function<void()> hook) {
    engineStartedHook() = std::move(hook);
}

bool CWebPane::engineStarted() { return g_createView != nullptr; }

QString CWebPane::engineModulePath() {
    QStringList candidates;
    if (qEnvironmentVariableIsSet("PELSU_WEBVIEW_MODULE"))
        candidates << qEnvironmentVariable("PELSU_WEBVIEW_MODULE");
    const QString programDir = QCoreApplication::applicationDirPath();
    candidates << programDir + "/" + kModuleName << programDir + "/../lib/" + kModuleName;
#ifdef PELSU_WEBVIEW_MODULE_BUILT
    candidates << PELSU_WEBVIEW_MODULE_BUILT;
#endif
    for (const QString& candidate : candidates)
        if (QFileInfo(candidate).isFile())
            return QFileInfo(candidate).absoluteFilePath();
    return {};
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
    // Qt::AA_ShareOpenGLContexts is left off on purpose: it makes every start create a GL
    // context (tens of MiB of driver), and the engine, loaded later, draws without it.
    // Every page shown inside comes from this program (its summary pages) or from its own
    // loopback listeners, never from another site, so one renderer process serves them all:
    // ten channel windows then cost about 20 MiB more than one instead of a process each.
    // The engine's views draw through Qt Quick: its software renderer spares the program a
    // GL context (about 35 MiB with ten views open); the summary pages don't need the GPU.
    if (!qEnvironmentVariableIsSet(kQuickBackend))
        qputenv(kQuickBackend, "software");
    QByteArray flags = qgetenv(kEngineFlags);
    if (!flags.contains(kRendererLimit)) {
        flags += flags.isEmpty() ? "" : " ";
        flags += kRendererLimit;
        flags += "=1";
        qputenv(kEngineFlags, flags);
    }
    if (!runsAsRoot() || qEnvironmentVariableIsSet(kNoSandbox))
        return false;
    qputenv(kNoSandbox, "1");
    return true;
}

} // namespace trayClient

#include "moc_webPane.cpp" // NOLINT(bugprone-suspicious-include)
