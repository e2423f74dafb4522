#include "app/subscriptions.h"

#include "channels/channelManager.h"
#include "channels/exception.h"
#include "channels/rssChannel.h"
#include "lib/log/log.h"
#include "lib/misc/text.h"
#include "templateProcessor/templateProcessor.h"
#include "tools/hostAddress.h"

#include <cctype>
#include <filesystem>

namespace app {

using channels::Channel;
using channels::ChannelManager;
using channels::Exception;
using channels::RssChannel;

namespace {

msglog::MsgGroup& subscriptionGroup() { return msglog::registerMsgGroup("Subscriptions"); }

constexpr std::size_t kMaxAddressLength = 2048;

bool startsWithNoCase(const std::string& text, const std::string& prefix) {
    return misc::lowered(text.substr(0, prefix.size())) == prefix;
}

// Whether a parameter's value is an address written out as it is (not percent-encoded).
bool isRawAddress(const std::string& value) {
    return startsWithNoCase(value, "http://") || startsWithNoCase(value, "https://") ||
           startsWithNoCase(value, "feed:");
}

// Whether an http(s) address names this computer by its host, in any of its written forms.
bool namesThisComputer(const std::string& address) {
    const std::size_t begin = address.find("://") + 3;
    std::string authority = address.substr(begin, address.find_first_of("/?#", begin) - begin);
    const std::size_t at = authority.rfind('@');
    if (at != std::string::npos)
        authority = authority.substr(at + 1);
    const std::size_t bracket = authority.rfind(']');
    const std::size_t colon = authority.rfind(':');
    const bool hasPort =
        colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
    const std::string host = hasPort ? authority.substr(0, colon) : authority;
    int port = startsWithNoCase(address, "https:") ? 443 : 80;
    if (hasPort) {
        const std::string digits = authority.substr(colon + 1);
        if (!digits.empty() && digits.size() <= 5 &&
            digits.find_first_not_of("0123456789") == std::string::npos)
            port = std::stoi(digits);
    }
    return tools::hostNamesThisComputer(host, port);
}

// "mailto:x" or "javascript:x", but not "host:8080/path" or "host/path".
bool hasOtherScheme(const std::string& text) {
    const std::size_t colon = text.find(':');
    const std::size_t slash = text.find('/');
    if (colon == std::string::npos || slash < colon)
        return false;
    const std::string port =
        text.substr(colon + 1, slash == std::string::npos ? slash : slash - colon - 1);
    return port.empty() || port.find_first_not_of("0123456789") != std::string::npos;
}

} // namespace

std::optional<std::string> subscriptionParameter(const std::string& query,
                                                 const std::string& name) {
    const std::string key = name + "=";
    std::size_t at = 0;
    while (query.compare(at, key.size(), key) != 0) {
        at = query.find('&', at);
        if (at == std::string::npos)
            return std::nullopt;
        ++at;
    }
    std::string value = query.substr(at + key.size());
    if (!isRawAddress(value))
        return misc::percentDecoded(value.substr(0, value.find('&')));
    if (value.ends_with("&go"))
        value.resize(value.size() - 3);
    return value;
}

std::string feedAddress(const std::string& text) {
    std::string address = misc::trimmed(text);
    if (startsWithNoCase(address, "feed:")) {
        address = address.substr(5);
        if (address.rfind("//", 0) == 0)
            address = "http:" + address;
    }
    if (!address.empty() && address.find("://") == std::string::npos && !hasOtherScheme(address))
        address = "http://" + address;
    return address;
}

std::string subscriptionAddressProblem(const std::string& address) {
    if (address.empty())
        return "No feed address was given.";
    if (address.size() > kMaxAddressLength)
        return "The feed address is too long.";
    for (char c : address)
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f)
            return "The feed address holds spaces or control characters.";
    if (!startsWithNoCase(address, "http://") && !startsWithNoCase(address, "https://"))
        return "Only http and https feeds can be subscribed to from a web page.";
    if (namesThisComputer(address))
        return "A web page can't subscribe to an address on this computer; add such a channel "
               "yourself.";
    return "";
}

std::string channelIdFromAddress(const std::string& address, const ChannelManager& manager) {
    // A local file gives its name; an address its host and the name of its last path part.
    std::string text;
    const auto scheme = address.find("://");
    if (scheme == std::string::npos) {
        text = std::filesystem::path(address).stem().string();
    } else {
        std::string rest = address.substr(scheme + 3);
        const auto slash = rest.find('/');
        std::string host = rest.substr(0, std::min(slash, rest.find_first_of("?#")));
        if (host.rfind("www.", 0) == 0)
            host = host.substr(4);
        text = host;
        if (slash != std::string::npos) {
            std::string path = rest.substr(slash);
            path = path.substr(0, path.find_first_of("?#"));
            while (!path.empty() && path.back() == '/')
                path.pop_back();
            const std::string last = std::filesystem::path(path).stem().string();
            if (!last.empty())
                text += "_" + last;
        }
    }
    // Only letters, digits, "-" and "_": never a "." or "/", so never a path elsewhere.
    std::string id;
    for (char c : text) {
        const bool keep = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
        if (keep)
            id += c;
        else if (!id.empty() && id.back() != '_')
            id += '_';
        if (id.size() >= 48)
            break;
    }
    while (!id.empty() && id.back() == '_')
        id.pop_back();
    if (id.empty())
        id = "channel";
    std::string unique = id;
    for (int n = 2; manager.findChannel(unique) ||
                    std::filesystem::exists(manager.channelsDir() + "/" + unique + ".rss") ||
                    std::filesystem::exists(manager.channelsDir() + "/" + unique + ".plugin");
         ++n)
        unique = id + "-" + std::to_string(n);
    return unique;
}

Subscriptions::Subscriptions(ChannelManager& manager, SubscriptionApprover* approver)
    : m_manager(manager), m_approver(approver) {}

std::string Subscriptions::findChannelByAddress(const std::string& address) const {
    for (Channel* channel : m_manager.channels())
        if (channel->address() == address)
            return channel->id();
    return "";
}

SubscriptionResult Subscriptions::subscribe(const std::string& requestedAddress) {
    using Outcome = SubscriptionResult::Outcome;
    SubscriptionResult result;
    result.address = feedAddress(requestedAddress);
    result.message = subscriptionAddressProblem(result.address);
    if (!result.message.empty()) {
        PELSU_LOG(subscriptionGroup(),
                  "Refused to subscribe to an invalid address: " << result.address.substr(0, 200));
        return result;
    }
    result.channelId = findChannelByAddress(result.address);
    if (!result.channelId.empty()) {
        result.outcome = Outcome::AlreadySubscribed;
        return result;
    }
    // The approver may ask the user, so no lock is held while it decides.
    result.message = m_approver ? m_approver->approveSubscription(result.address)
                                : "Subscriptions from web pages are not accepted.";
    if (!result.message.empty()) {
        result.outcome = Outcome::Refused;
        PELSU_LOG(subscriptionGroup(), "Subscription refused: " << result.address);
        return result;
    }
    threadSafety::ScopedLock lock(m_lock);
    result.channelId = findChannelByAddress(result.address);
    if (!result.channelId.empty()) {
        result.outcome = Outcome::AlreadySubscribed;
        return result;
    }
    try {
        auto channel = std::make_unique<RssChannel>(
            &m_manager, channelIdFromAddress(result.address, m_manager));
        channel->config().setRssChannelUrl(result.address);
        channel->config().setSubscribedFromWebPage(true);
        result.channelId = m_manager.addChannel(std::move(channel))->id();
    } catch (const std::exception& e) {
        result.outcome = Outcome::Failed;
        result.message = e.what();
        result.channelId.clear();
        PELSU_LOG(subscriptionGroup(), "Can't subscribe to " << result.address << ": " << e.what());
        return result;
    }
    m_manager.requestUpdate(result.channelId);
    result.outcome = Outcome::Subscribed;
    PELSU_LOG(subscriptionGroup(),
              "Subscribed to " << result.address << " as channel " << result.channelId);
    return result;
}

void Subscriptions::setMaxPerMinute(int limit) {
    std::lock_guard guard(m_rateMutex);
    m_maxPerMinute = limit;
}

bool Subscriptions::admit(std::size_t count) {
    std::lock_guard guard(m_rateMutex);
    const std::time_t now = m_manager.now();
    while (!m_recent.empty() && (m_recent.front() <= now - 60 || m_recent.front() > now))
        m_recent.pop_front();
    if (m_recent.size() + count > static_cast<std::size_t>(std::max(m_maxPerMinute, 0)))
        return false;
    m_recent.insert(m_recent.end(), count, now);
    return true;
}

std::string crossSiteProblem(const std::string& host, const std::string& origin,
                             const std::string& referer) {
    // The listener's own pages are addressed as 127.0.0.1 or localhost on its port.
    const std::string port = host.substr(host.rfind(':') + 1);
    const auto isOwnSite = [&](const std::string& value) {
        const std::size_t scheme = value.find("://");
        const std::string site = misc::lowered(
            scheme == std::string::npos ? value : value.substr(0, value.find('/', scheme + 3)));
        return site == "http://127.0.0.1:" + port || site == "http://localhost:" + port;
    };
    if (!origin.empty() && !isOwnSite(origin))
        return "The request comes from a page of another site (Origin: " + origin.substr(0, 200) +
               "). Only the reader's own pages may subscribe through this address.";
    if (!referer.empty() && !isOwnSite(referer))
        return "The request comes from a page of another site (Referer: " + referer.substr(0, 200) +
               "). Only the reader's own pages may subscribe through this address.";
    return "";
}

std::string localAnswerPage(const std::string& title, const std::string& bodyHtml) {
    static const std::string page =
        "<!DOCTYPE html>\n<html><head><meta charset=\"ISO-8859-1\"><title>{%TITLE%}</title>\n"
        "<style>body{font-family:sans-serif;margin:2em;color:#222}"
        "h1{font-size:1.4em;color:#800000}li{margin:.4em 0}code{word-break:break-all}</style>\n"
        "</head><body><h1>{%TITLE%}</h1>\n{%RAW:BODY%}\n<p><small>Pelsu Desktop Client</small>"
        "</p></body></html>\n";
    return templateProcessor::process(page, {{"TITLE", title}, {"BODY", bodyHtml}});
}

std::string subscriptionAnswerPage(const std::vector<SubscriptionResult>& results) {
    using Outcome = SubscriptionResult::Outcome;
    std::string body = "<ul>\n";
    for (const SubscriptionResult& result : results) {
        const std::string address =
            "<code>" + templateProcessor::escapeHtml(result.address.substr(0, 300)) + "</code>";
        const std::string id = templateProcessor::escapeHtml(result.channelId);
        switch (result.outcome) {
        case Outcome::Subscribed:
            body += "<li>Subscribed to " + address + " as the channel <b>" + id +
                    "</b>. Its first update is on its way.</li>\n";
            break;
        case Outcome::AlreadySubscribed:
            body += "<li>Already subscribed to " + address + ": it is the channel <b>" + id +
                    "</b>.</li>\n";
            break;
        default:
            body += "<li>Not subscribed to " + address + ": " +
                    templateProcessor::escapeHtml(result.message) + "</li>\n";
        }
    }
    if (results.empty())
        body += "<li>The request names no feed to subscribe to.</li>\n";
    return localAnswerPage("Subscription", body + "</ul>");
}

int subscriptionAnswerStatus(const std::vector<SubscriptionResult>& results) {
    using Outcome = SubscriptionResult::Outcome;
    int status = 400;
    for (auto it = results.rbegin(); it != results.rend(); ++it) {
        switch (it->outcome) {
        case Outcome::Subscribed:
        case Outcome::AlreadySubscribed:
            return 200;
        case Outcome::Refused:
            status = 403;
            break;
        case Outcome::Failed:
            status = 500;
            break;
        case Outcome::Invalid:
            status = 400;
            break;
        }
    }
    return status;
}

} // namespace app
