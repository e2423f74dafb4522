#include "app/localPortListeners.h"

#include "app/globalOptions.h"
#include "channels/appPluginManager.h"
#include "channels/channelManager.h"
#include "channels/exception.h"
#include "channels/internal/scriptRunner.h"
#include "lib/log/log.h"
#include "templateProcessor/templateProcessor.h"
#include "tools/descriptorLimit.h"

#include <fstream>
#include <sstream>

namespace app {

using channels::AppPlugin;
using channels::AppPluginManager;
using channels::ChannelManager;
using channels::Exception;
using channels::parsePluginUri;

namespace {

const char* const kAppServer = "app server";
const char* const kAppPluginServer = "app-plugin server";
const char* const kAmphetaDesk = "AmphetaDesk listener";
const char* const kRadioUserland = "Radio Userland listener";
const char* const kHeadlineViewer = "Headline Viewer listener";

msglog::MsgGroup& listenersGroup() { return msglog::registerMsgGroup("LocalPortListener"); }

tools::LocalAnswer page(int status, const std::string& title, const std::string& bodyHtml) {
    tools::LocalAnswer answer;
    answer.status = status;
    answer.body = localAnswerPage(title, bodyHtml);
    return answer;
}

tools::LocalAnswer notFound(const std::string& what) {
    return page(404, "Not found", "<p>" + templateProcessor::escapeHtml(what) + "</p>");
}

// "a,b,c" as its non-empty parts.
std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    std::string part;
    while (std::getline(stream, part, ','))
        if (!part.empty())
            parts.push_back(part);
    return parts;
}

// The connection limits shrunk so that every listener's connections fit in the descriptors
// the process may open (raised first as far as allowed): past them the listeners would spin
// on accepts that fail.
tools::ListenerLimits fittedLimits(const LocalPortListenerOptions& options, std::size_t enabled) {
    tools::ListenerLimits limits = options.limits;
    const std::size_t descriptors = tools::raiseDescriptorLimit();
    limits.maxConnections = tools::connectionsPerListener(
        limits.maxConnections, enabled, descriptors, tools::openDescriptorCount());
    if (limits.maxConnections < options.limits.maxConnections)
        PELSU_LOG(listenersGroup(), "The descriptor limit " << descriptors << " allows "
                                                            << limits.maxConnections
                                                            << " connections per listener.");
    return limits;
}

} // namespace

LocalPortListenerOptions listenerOptions(const GlobalOptions& options) {
    LocalPortListenerOptions result;
    result.appServerPort = options.appServerPortNo;
    result.appPluginServerPort = options.appPluginServerPortNo;
    result.amphetaDesk = options.listenForAmphetaDeskSubscriptions;
    result.radioUserland = options.listenForRadioUserlandSubscriptions;
    result.headlineViewer = options.listenForHeadlineViewerSubscriptions;
    result.maxWebSubscriptionsPerMinute = options.maxWebSubscriptionsPerMinute;
    return result;
}

LocalPortListeners::LocalPortListeners(ChannelManager& channels, AppPluginManager& plugins,
                                       SubscriptionApprover* approver)
    : m_channels(channels), m_plugins(plugins), m_subscriptions(channels, approver) {}

LocalPortListeners::~LocalPortListeners() { stop(); }

std::vector<std::string> LocalPortListeners::start(const LocalPortListenerOptions& options) {
    struct Entry {
        const char* name;
        int port;
        bool enabled;
        tools::LocalAnswer (LocalPortListeners::*answer)(const tools::LocalRequest&);
    };
    const Entry entries[] = {
        {kAppServer, options.appServerPort, true, &LocalPortListeners::appServerAnswer},
        {kAppPluginServer, options.appPluginServerPort, true, &LocalPortListeners::appPluginAnswer},
        {kAmphetaDesk, options.amphetaDeskPort, options.amphetaDesk,
         &LocalPortListeners::amphetaDeskAnswer},
        {kRadioUserland, options.radioUserlandPort, options.radioUserland,
         &LocalPortListeners::radioUserlandAnswer},
        {kHeadlineViewer, options.headlineViewerPort, options.headlineViewer,
         &LocalPortListeners::headlineViewerAnswer},
    };
    stop();
    std::size_t enabled = 0;
    for (const Entry& entry : entries)
        enabled += entry.enabled ? 1 : 0;
    const tools::ListenerLimits limits = fittedLimits(options, enabled);
    m_subscriptions.setMaxPerMinute(options.maxWebSubscriptionsPerMinute);
    std::vector<std::string> problems;
    for (const Entry& entry : entries) {
        if (!entry.enabled)
            continue;
        auto listener = std::make_unique<tools::LocalPortListener>(
            entry.name, entry.port,
            [this, answer = entry.answer](const tools::LocalRequest& request) {
                return (this->*answer)(request);
            },
            limits);
        try {
            listener->start();
            m_listeners.push_back(std::move(listener));
        } catch (const std::exception& e) {
            PELSU_LOG(listenersGroup(), e.what());
            problems.push_back(e.what());
        }
    }
    // Scripts learn the servers' addresses from the plugin manager; a server that could not
    // start keeps its configured port there.
    const int appServerPort = port(kAppServer);
    const int appPluginServerPort = port(kAppPluginServer);
    m_plugins.setPorts(appServerPort ? appServerPort : options.appServerPort,
                       appPluginServerPort ? appPluginServerPort : options.appPluginServerPort);
    return problems;
}

void LocalPortListeners::stop() {
    for (auto& listener : m_listeners)
        listener->stop();
    m_listeners.clear();
}

int LocalPortListeners::port(const std::string& name) const {
    for (const auto& listener : m_listeners)
        if (listener->name() == name)
            return listener->port();
    return 0;
}

tools::LocalAnswer LocalPortListeners::subscribeAll(const tools::LocalRequest& request,
                                                    const std::vector<std::string>& addresses) {
    if (const std::string problem = crossSiteProblem(request.host, request.origin, request.referer);
        !problem.empty()) {
        PELSU_LOG(listenersGroup(), "Refused a subscription request from another site.");
        return page(403, "Subscription refused",
                    "<p>" + templateProcessor::escapeHtml(problem) + "</p>");
    }
    // Every address of a list counts, so one request can't make many channels at once.
    if (!m_subscriptions.admit(addresses.size())) {
        PELSU_LOG(listenersGroup(), "Refused a subscription request past the limit per minute.");
        return page(429, "Too many subscriptions",
                    "<p>Web pages have asked for more subscriptions than the reader accepts in "
                    "one minute, so nothing was subscribed. Wait a minute and try again, or add "
                    "the channel yourself.</p>");
    }
    std::vector<SubscriptionResult> results;
    for (const std::string& address : addresses)
        results.push_back(m_subscriptions.subscribe(address));
    tools::LocalAnswer answer;
    answer.status = subscriptionAnswerStatus(results);
    answer.body = subscriptionAnswerPage(results);
    return answer;
}

tools::LocalAnswer LocalPortListeners::subscribeParameter(const tools::LocalRequest& request,
                                                          const std::string& name) {
    const auto address = subscriptionParameter(request.query, name);
    if (!address)
        return page(400, "Subscription",
                    "<p>The request names no feed: it needs <code>" + name +
                        "=</code> and the feed's address.</p>");
    return subscribeAll(request, {*address});
}

tools::LocalAnswer LocalPortListeners::appServerAnswer(const tools::LocalRequest& request) {
    if (request.path == "/subscribe")
        return subscribeParameter(request, "url");
    if (request.path == "/")
        return page(200, "Pelsu Desktop Client",
                    "<p>This is the reader's local app server. A web page subscribes you to a "
                    "feed by linking to <code>/subscribe?url=</code> and the feed's "
                    "address.</p>");
    return notFound("Nothing is served at this address.");
}

tools::LocalAnswer LocalPortListeners::amphetaDeskAnswer(const tools::LocalRequest& request) {
    // Any path: the links name "/index.html", but only the query matters.
    if (const auto address = subscriptionParameter(request.query, "add_url"))
        return subscribeAll(request, {*address});
    if (const auto list = subscriptionParameter(request.query, "add_urls"))
        return subscribeAll(request, splitList(*list));
    return page(400, "Subscription",
                "<p>The request names no feed: it needs <code>add_url=</code> or "
                "<code>add_urls=</code>.</p>");
}

tools::LocalAnswer LocalPortListeners::radioUserlandAnswer(const tools::LocalRequest& request) {
    if (request.path == "/system/pages/subscriptions" ||
        request.path == "/system/pages/subscriptions/")
        return subscribeParameter(request, "url");
    return notFound("Nothing is served at this address.");
}

tools::LocalAnswer LocalPortListeners::headlineViewerAnswer(const tools::LocalRequest& request) {
    if (request.path == "/add_provider")
        return subscribeParameter(request, "url");
    return notFound("Nothing is served at this address.");
}

tools::LocalAnswer LocalPortListeners::pluginIndex() {
    std::string body = "<ul>\n";
    for (const std::string& id : m_plugins.appPluginIds()) {
        AppPlugin* plugin = m_plugins.findAppPlugin(id);
        const std::string escapedId = templateProcessor::escapeHtml(id);
        body += "<li><a href=\"/" + escapedId + "\">" +
                templateProcessor::escapeHtml(plugin ? plugin->displayName() : id) + "</a> (" +
                escapedId + ")</li>\n";
    }
    return page(200, "App plugins", body + "</ul>");
}

std::string LocalPortListeners::pluginMainPage(AppPlugin& plugin) {
    std::mutex* pageLock;
    {
        std::lock_guard guard(m_mainPageLocksMutex);
        auto& slot = m_mainPageLocks[plugin.id()];
        if (!slot)
            slot = std::make_unique<std::mutex>();
        pageLock = slot.get();
    }
    std::lock_guard guard(*pageLock);
    plugin.GenerateMainPage();
    std::ifstream in(plugin.mainPageFile(), std::ios::binary);
    if (!in)
        throw Exception("Can't read the plugin's main page: " + plugin.mainPageFile());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

tools::LocalAnswer LocalPortListeners::appPluginAnswer(const tools::LocalRequest& request) {
    std::string id, pluginRequest, params;
    try {
        parsePluginUri(request.target, id, pluginRequest, params);
    } catch (const std::exception& e) {
        return page(400, "Bad request", "<p>" + templateProcessor::escapeHtml(e.what()) + "</p>");
    }
    if (pluginRequest.empty())
        id = id.substr(0, id.find('?')); // "/ID?x": the main page; it takes no parameters
    if (id.empty())
        return pluginIndex();
    AppPlugin* plugin = m_plugins.findAppPlugin(id);
    if (!plugin)
        return notFound("No app plugin has the ID \"" + id + "\".");
    tools::LocalAnswer answer;
    try {
        if (pluginRequest.empty())
            answer.body = pluginMainPage(*plugin);
        else
            plugin->ProcessRequest(pluginRequest, params, answer.body, nullptr);
    } catch (const std::exception& e) {
        PELSU_LOG(listenersGroup(), "The app plugin " << id << " failed: " << e.what());
        return page(500, "The app plugin failed",
                    "<p>The app plugin <b>" + templateProcessor::escapeHtml(id) +
                        "</b> could not answer:</p><p>" + templateProcessor::escapeHtml(e.what()) +
                        "</p>");
    }
    return answer;
}

} // namespace app
