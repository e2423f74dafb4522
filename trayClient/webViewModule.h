// The browser engine's side of a web pane, in a module of its own (webView/) that the client
// loads with the first page it shows: linking the engine into the program would map its
// libraries and start a GL context at every start, a large share of the memory of a program
// that mostly sits in the tray. This header is the whole contract between the two, so it
// holds interfaces only (no code the module would have to link).
#pragma once

#include <QString>
#include <QUrl>

class QWidget;

namespace trayClient {

// What the view asks of its pane; implemented by CWebPane.
class WebViewHost {
public:
    // Whether a navigation of the main frame (or a sub-frame) may load in the view. The host
    // may act on it (open it in the browser) and returns false for what does not stay.
    virtual bool acceptNavigation(const QUrl& url, bool isMainFrame, bool linkClicked) = 0;
    // A page asked for a window of its own; the address it loads is handed here instead.
    virtual void newWindowRequested(const QUrl& url) = 0;
    virtual void pageLoaded(bool ok) = 0;

protected:
    ~WebViewHost() = default;
};

// One browser view, owned by its pane.
class WebView {
public:
    virtual ~WebView() = default;
    virtual QWidget* widget() = 0;
    virtual void load(const QUrl& url) = 0;
    // The address of the document shown.
    virtual QUrl url() const = 0;
    virtual void runJavaScript(const QString& script) = 0;
};

// The module's one entry point, looked up by this name.
using CreateWebViewFunction = WebView* (*)(WebViewHost& host, QWidget* parent);
inline constexpr const char* kCreateWebViewSymbol = "pelsuCreateWebView";

} // namespace trayClient
