// Subscribing to feeds that web pages offer: the addresses read from the subscription links
// of the local listeners, the checks they must pass, the new channel, and the page that
// tells the user what happened.
#pragma once

#include "lib/misc/threadSafetyWin32.h"

#include <ctime>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace channels {
class ChannelManager;
} // namespace channels

namespace app {

// Decides whether a subscription a web page asked for goes ahead (the desktop client asks
// its user; the headless front end answers from its command line).
class SubscriptionApprover {
public:
    virtual ~SubscriptionApprover() = default;
    // Empty when the subscription may go ahead, otherwise why not (shown to the user).
    virtual std::string approveSubscription(const std::string& address) = 0;
};

struct SubscriptionResult {
    enum class Outcome { Subscribed, AlreadySubscribed, Refused, Invalid, Failed };
    Outcome outcome = Outcome::Invalid;
    std::string address;   // as understood ("feed:" addresses made http)
    std::string channelId; // the new or existing channel
    std::string message;   // why not, for the last three outcomes
};

// The value of the query parameter `name`: a raw address runs to the end of the query (it
// may hold its own "?" and "&"), a percent-encoded one to the next "&" and is decoded; a
// trailing "&go" is dropped. Nothing when the parameter is absent.
std::optional<std::string> subscriptionParameter(const std::string& query, const std::string& name);
// "feed://host/x" and "feed:http://host/x" as http addresses; an address without a scheme
// gets "http://"; others come back trimmed.
std::string feedAddress(const std::string& text);
// Why a web page may not subscribe to this address, or empty when it may.
std::string subscriptionAddressProblem(const std::string& address);
// A new channel ID made from an address (host and last path part, letters, digits, "-" and
// "_"), unused by the manager's channels and files. It never names a path outside the
// channels directory.
std::string channelIdFromAddress(const std::string& address,
                                 const channels::ChannelManager& manager);

class Subscriptions {
public:
    // The approver may be null: every subscription is then refused.
    Subscriptions(channels::ChannelManager& manager, SubscriptionApprover* approver);

    // Subscribes to the address (after feedAddress) unless it is invalid, known already or
    // refused: the channel file is written, the channel joins the manager and its first
    // update is requested. Safe from several threads at once.
    SubscriptionResult subscribe(const std::string& requestedAddress);

    // Web pages may subscribe to at most this many addresses a minute (by the manager's clock).
    void setMaxPerMinute(int limit);
    // Takes room for count addresses in the last minute; false, taking nothing, past the limit.
    bool admit(std::size_t count);

private:
    std::string findChannelByAddress(const std::string& address) const;

    channels::ChannelManager& m_manager;
    SubscriptionApprover* m_approver;
    threadSafety::CriticalSection m_lock{"Subscriptions"};
    std::mutex m_rateMutex;
    int m_maxPerMinute = 10;
    std::deque<std::time_t> m_recent; // one entry per address admitted
};

// Why a subscription request from a page is refused because it comes from another site than
// the listener (by its Origin or Referer header), or empty when it is not.
std::string crossSiteProblem(const std::string& host, const std::string& origin,
                             const std::string& referer);

// The page answering a subscription request, and its HTTP status (200 when any address is
// subscribed or known already).
std::string subscriptionAnswerPage(const std::vector<SubscriptionResult>& results);
int subscriptionAnswerStatus(const std::vector<SubscriptionResult>& results);
// A small page in the style of the answers, the body already HTML.
std::string localAnswerPage(const std::string& title, const std::string& bodyHtml);

} // namespace app
