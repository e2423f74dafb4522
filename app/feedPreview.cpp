#include "app/feedPreview.h"

#include "channels/common.h"
#include "channels/exception.h"
#include "channels/feedFormats.h"
#include "channels/rssChannel.h"
#include "channels/rssParser.h"
#include "tools/localFile.h"
#include "tools/net.h"

#include <cstring>

namespace app {

namespace {

// A local path rather than an address: it has neither a scheme nor "file:".
bool isLocalPath(const std::string& address) {
    return address.find("://") == std::string::npos && address.rfind("file:", 0) != 0;
}

// The option that would let the parser read the text, when it is off.
std::string formatOptionFor(const std::string& text, const channels::FeedFormats& formats) {
    switch (channels::detectFeedFormat(text)) {
    case channels::FeedFormat::Atom:
        return formats.atom ? "" : "AcceptAtomFeeds";
    case channels::FeedFormat::Json: // any JSON answer starts so: it must name its version
        return formats.json || text.find("jsonfeed.org/version") == std::string::npos
                   ? ""
                   : "AcceptJsonFeeds";
    case channels::FeedFormat::Xml:
        break;
    }
    return "";
}

} // namespace

FeedPreviewer::FeedPreviewer(PreviewOptions options)
    : m_options(std::move(options)), m_session(std::make_unique<tools::InternetSession>(
                                         m_options.userAgent, m_options.manager.net)) {}

FeedPreviewer::~FeedPreviewer() = default;

void FeedPreviewer::abort() { m_session->abortAll(); }

// The same steps as a feed channel's fetch, without validators (as a first fetch).
std::string FeedPreviewer::fetch(const std::string& address) {
    if (m_options.manager.disableInternet)
        throw channels::Exception("Internet access has been disabled.");
    if (isLocalPath(address))
        if (const std::string problem = tools::localFileProblem(address); !problem.empty())
            throw channels::Exception(problem);
    std::string url = address;
    tools::DownloadRules rules;
    if (url.compare(0, std::strlen(channels::kLoopbackPrefix), channels::kLoopbackPrefix) == 0) {
        url = channels::withLoopbackPort(url, m_options.manager.appPluginServerPort);
        rules.useUrlPort = true;
    }
    long status = 0;
    std::string statusText;
    std::string body;
    tools::readUrl(*m_session, url, nullptr, nullptr, true, &status, &statusText, body, rules);
    channels::feedDownloadChanged(status, statusText);
    return body;
}

FeedPreview FeedPreviewer::preview(const std::string& address) {
    FeedPreview result;
    result.address = address;
    std::string text;
    try {
        text = fetch(address);
        channels::ParseOptions options;
        options.channelName = address;
        options.itemLimit = m_options.manager.feedItemLimit;
        options.depthLimit = m_options.manager.feedDepthLimit;
        options.formats = m_options.manager.feedFormats;
        options.documentAddress = address;
        channels::RssParser parser;
        const auto feed = channels::parseFeed(parser, options, text, m_options.maxItems);
        result.channel = feed->channel();
        result.items = feed->items();
    } catch (const std::exception& failure) {
        result.error = failure.what();
        if (result.error.empty())
            result.error = "Can't update the feed.";
        if (looksLikeHtml(text))
            result.links = discoverFeedLinks(text, address);
        result.formatOption = formatOptionFor(text, m_options.manager.feedFormats);
    }
    return result;
}

FeedPreview previewFeed(const std::string& address, const PreviewOptions& options) {
    FeedPreviewer previewer(options);
    return previewer.preview(address);
}

} // namespace app
