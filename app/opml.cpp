#include "app/opml.h"

#include "app/channelCommands.h"
#include "app/subscriptions.h"
#include "app/terminalText.h"
#include "channels/channelManager.h"
#include "channels/exception.h"
#include "channels/rssChannel.h"
#include "expat/parser.h"
#include "templateProcessor/templateProcessor.h"
#include "tools/localFile.h"

#include <cstring>
#include <fstream>
#include <sstream>
#include <strings.h>

namespace app {

namespace {

// OPML files are UTF-8; the engine keeps Latin-1.
std::string latin1(const char* utf8) {
    std::string text;
    expat::appendUtf8AsLatin1(text, utf8, std::strlen(utf8));
    return text;
}

// Why an outline's address can't become a channel, or empty when it can: only http and https
// addresses and regular local files (never devices, FIFOs or the kernel's files).
std::string addressProblem(const std::string& url) {
    const std::string scheme = url.substr(0, url.find("://"));
    if (::strcasecmp(scheme.c_str(), "http") == 0 || ::strcasecmp(scheme.c_str(), "https") == 0)
        return "";
    const std::string path = tools::localFilePath(url);
    if (path.empty())
        return "not an http or https address or an existing local file";
    return tools::localFileProblem(path);
}

// Collects every outline with a feed address, however deeply nested.
class OpmlReader : public expat::Parser {
public:
    std::vector<OpmlEntry> entries;

protected:
    void onStartElement(const char* name, const char** attributes) override {
        if (::strcasecmp(name, "outline") != 0)
            return;
        OpmlEntry entry;
        std::string text;
        for (const char** attribute = attributes; attribute && *attribute; attribute += 2) {
            if (::strcasecmp(attribute[0], "xmlUrl") == 0)
                entry.address = latin1(attribute[1]);
            else if (::strcasecmp(attribute[0], "title") == 0)
                entry.title = latin1(attribute[1]);
            else if (::strcasecmp(attribute[0], "text") == 0)
                text = latin1(attribute[1]);
        }
        if (entry.title.empty())
            entry.title = text;
        if (!entry.address.empty())
            entries.push_back(std::move(entry));
    }
};

} // namespace

std::vector<OpmlEntry> parseOpml(const std::string& text) {
    OpmlReader reader;
    reader.parse(text.data(), text.size());
    for (OpmlEntry& entry : reader.entries)
        entry.problem = addressProblem(entry.address);
    return std::move(reader.entries);
}

std::vector<OpmlEntry> readOpml(const std::string& path, const std::string& shownAs) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw channels::Exception("Can't open file: " + (shownAs.empty() ? path : shownAs));
    std::ostringstream text;
    text << in.rdbuf();
    return parseOpml(text.str());
}

std::string writeOpml(const std::vector<OpmlEntry>& entries) {
    std::ostringstream out;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<opml version=\"2.0\">\n"
        << "<head><title>Pelsu channels</title></head>\n<body>\n";
    for (const OpmlEntry& entry : entries) {
        const std::string name = templateProcessor::escapeHtml(toUtf8(entry.title));
        out << "<outline type=\"rss\" text=\"" << name << "\" title=\"" << name << "\" xmlUrl=\""
            << templateProcessor::escapeHtml(toUtf8(entry.address)) << "\"/>\n";
    }
    out << "</body>\n</opml>\n";
    return out.str();
}

std::vector<OpmlEntry> opmlEntriesOf(const channels::ChannelManager& manager) {
    std::vector<OpmlEntry> entries;
    for (channels::Channel* channel : manager.channels())
        entries.push_back({nameOrAddress(*channel), channel->address(), ""});
    return entries;
}

std::set<std::string> subscribedAddresses(const channels::ChannelManager& manager) {
    std::set<std::string> addresses;
    for (channels::Channel* channel : manager.channels())
        addresses.insert(channel->address());
    return addresses;
}

OpmlImportCounts
importOpmlEntries(channels::ChannelManager& manager, const std::vector<OpmlEntry>& entries,
                  const std::function<void(const OpmlEntry&, OpmlOutcome)>& report) {
    std::set<std::string> known = subscribedAddresses(manager);
    OpmlImportCounts counts;
    for (const OpmlEntry& entry : entries) {
        OpmlOutcome outcome = OpmlOutcome::Added;
        if (!entry.problem.empty()) {
            outcome = OpmlOutcome::Refused;
            ++counts.refused;
        } else if (!known.insert(entry.address).second) {
            outcome = OpmlOutcome::AlreadySubscribed;
            ++counts.skipped;
        } else {
            NewChannel channel;
            channel.address = entry.address;
            channel.name = entry.title;
            channel.id = channelIdFromAddress(entry.address, manager);
            addNewChannel(manager, channel);
            ++counts.added;
        }
        if (report)
            report(entry, outcome);
    }
    return counts;
}

std::string opmlImportSummary(const OpmlImportCounts& counts) {
    std::string text = "Imported " + std::to_string(counts.added) + " channel(s); skipped " +
                       std::to_string(counts.skipped) + " duplicate(s)";
    if (counts.refused > 0)
        text += "; refused " + std::to_string(counts.refused) + " address(es)";
    return text + ".";
}

} // namespace app
