#include "channels/channelSummaryPage.h"

#include "channels/channel.h"
#include "channels/exception.h"
#include "htmlStripper/htmlStripper.h"
#include "templateProcessor/templateProcessor.h"

#include <cctype>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace channels {

namespace {

const char* const kDefaultTemplate = "./DefaultChannelSummary.template";
const char* const kDefaultBackground = "./DefaultChannelSummary.gif";

std::string resolved(const std::string& name, const std::string& userDir) {
    const fs::path path(name);
    return (path.is_absolute() ? path : fs::path(userDir) / path).lexically_normal().string();
}

// A link from a feed: web, mail and file addresses (and relative ones) only, so that a feed
// can't slip a "javascript:" link into the page.
std::string safeUrl(const std::string& url) {
    const auto colon = url.find(':');
    const auto slash = url.find('/');
    if (colon == std::string::npos || (slash != std::string::npos && slash < colon))
        return url;
    std::string scheme = url.substr(0, colon);
    for (char& c : scheme)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const char* allowed : {"http", "https", "ftp", "mailto", "file", "news", "feed"})
        if (scheme == allowed)
            return url;
    return "#";
}

templateProcessor::Variables channelVariables(Channel& channel, const std::string& background) {
    const Feed& feed = channel.state().feed();
    const FeedChannelFields& fields = feed.channel();
    const ChannelConfig& config = channel.config();
    auto preferred = [](const std::string& mine, const std::string& feeds) {
        return mine.empty() ? feeds : mine;
    };
    return {
        {"CHANNEL-ID", channel.id()},
        {"CHANNEL-NAME", channel.name()},
        {"CHANNEL-DESCRIPTION",
         preferred(config.preferredChannelDescription(), fields.channelDescription)},
        {"CHANNEL-HOME-URL",
         safeUrl(preferred(config.preferredChannelHomeUrl(), fields.channelHomeUrl))},
        {"CHANNEL-IMAGE-URL",
         safeUrl(preferred(config.preferredImageUrl(), fields.channelImageUrl))},
        {"CHANNEL-IMAGE-WIDTH", std::to_string(fields.channelImageWidth)},
        {"CHANNEL-IMAGE-HEIGHT", std::to_string(fields.channelImageHeight)},
        {"CHANNEL-COPYRIGHT", fields.copyrightString},
        {"CHANNEL-EDITOR", fields.editorEmailAddress},
        {"CHANNEL-WEBMASTER", fields.webMasterEmailAddress},
        {"CHANNEL-PUBDATE", fields.pubDateString},
        {"CHANNEL-LAST-BUILD-DATE", fields.lastBuildDateString},
        {"CHANNEL-GENERATOR", fields.feedGenerator},
        {"CHANNEL-ITEM-COUNT", std::to_string(feed.itemCount())},
        {"CHANNEL-LAST-FETCH", fetchTimeText(channel.state().lastFetchTime())},
        {"CHANNEL-ADDRESS", channel.address()},
        {"BACKGROUND-IMAGE", "file://" + background},
    };
}

templateProcessor::Variables itemRow(const Feed& feed, std::size_t index) {
    const FeedItem item = feed.item(index);
    return {{"ITEM-NUMBER", std::to_string(index + 1)},
            {"ITEM-ID", item.id},
            {"ITEM-TITLE", item.title},
            {"ITEM-DESCRIPTION", htmlStripper::plainText(item.description)},
            {"ITEM-URL", safeUrl(item.url)},
            {"ITEM-SOURCE", item.source},
            {"ITEM-AUTHOR", item.author},
            {"ITEM-COMMENTS-URL", safeUrl(item.commentsUrl)},
            {"ITEM-PUBDATE", item.pubDateString}};
}

} // namespace

std::string fetchTimeText(std::int32_t time) {
    if (time == 0)
        return "never";
    std::time_t value = time;
    std::tm local{};
    localtime_r(&value, &local);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string writeChannelSummaryPage(Channel& channel, const std::string& userDir) {
    std::string templateName = channel.config().channelSummaryTemplateFilename();
    std::string backgroundName = channel.config().channelSummaryBackgroundFilename();
    const std::string templateFile =
        resolved(templateName.empty() ? kDefaultTemplate : templateName, userDir);
    const std::string background =
        resolved(backgroundName.empty() ? kDefaultBackground : backgroundName, userDir);
    std::ifstream in(templateFile, std::ios::binary);
    if (!in)
        throw Exception("Can't open file: " + templateFile);
    std::ostringstream text;
    text << in.rdbuf();
    const Feed& feed = channel.state().feed();
    const templateProcessor::Variables variables = channelVariables(channel, background);
    try {
        templateProcessor::process(text.str(), {}); // a broken template leaves the page alone
    } catch (const templateProcessor::Exception& failure) {
        throw Exception(std::string(failure.what()) + " (" + templateFile + ")");
    }
    tools::TempFile& file = channel.summaryPage();
    std::ofstream& out = file.reopen(true);
    templateProcessor::process(
        text.str(), variables, feed.itemCount(),
        [&feed](std::size_t index) { return itemRow(feed, index); }, out);
    file.close();
    return file.path();
}

} // namespace channels
