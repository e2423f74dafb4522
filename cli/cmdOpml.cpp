// pelsu-cli import-opml and export-opml: subscription lists in OPML 1.0 and 2.0.

#include "app/subscriptions.h"
#include "channels/exception.h"
#include "channels/rssChannel.h"
#include "cli/commands.h"
#include "cli/engine.h"
#include "expat/parser.h"
#include "templateProcessor/templateProcessor.h"
#include "tools/localFile.h"

#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <strings.h>

namespace cli {

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

struct Outline {
    std::string title;
    std::string url;
};

// Collects every outline with a feed address, however deeply nested.
class OpmlReader : public expat::Parser {
public:
    std::vector<Outline> outlines;

protected:
    void onStartElement(const char* name, const char** attributes) override {
        if (::strcasecmp(name, "outline") != 0)
            return;
        Outline outline;
        std::string text;
        for (const char** attribute = attributes; attribute && *attribute; attribute += 2) {
            if (::strcasecmp(attribute[0], "xmlUrl") == 0)
                outline.url = latin1(attribute[1]);
            else if (::strcasecmp(attribute[0], "title") == 0)
                outline.title = latin1(attribute[1]);
            else if (::strcasecmp(attribute[0], "text") == 0)
                text = latin1(attribute[1]);
        }
        if (outline.title.empty())
            outline.title = text;
        if (!outline.url.empty())
            outlines.push_back(std::move(outline));
    }
};

int runImport(const CommandContext& context) {
    if (context.args.size() != 1)
        throw UsageError("import-opml needs one OPML file");
    std::ifstream in(context.args[0], std::ios::binary);
    if (!in)
        throw channels::Exception("Can't open file: " + context.args[0]);
    std::ostringstream text;
    text << in.rdbuf();
    OpmlReader reader;
    reader.parse(text.str().data(), text.str().size());
    Engine engine(context);
    auto& manager = engine.manager();
    std::set<std::string> known;
    for (channels::Channel* channel : manager.channels())
        known.insert(channel->address());
    int added = 0, skipped = 0, refused = 0;
    for (const Outline& outline : reader.outlines) {
        if (const std::string problem = addressProblem(outline.url); !problem.empty()) {
            std::cout << "refused: " << toUtf8(outline.url) << ": " << toUtf8(problem) << '\n';
            ++refused;
            continue;
        }
        if (!known.insert(outline.url).second) {
            std::cout << "skipped (already subscribed): " << toUtf8(outline.url) << '\n';
            ++skipped;
            continue;
        }
        auto channel = std::make_unique<channels::RssChannel>(
            &manager, app::channelIdFromAddress(outline.url, manager));
        channel->config().setRssChannelUrl(outline.url);
        channel->config().setPreferredChannelDisplayName(outline.title);
        manager.addChannel(std::move(channel));
        ++added;
    }
    std::cout << "Imported " << added << " channel(s); skipped " << skipped << " duplicate(s)";
    if (refused > 0)
        std::cout << "; refused " << refused << " address(es)";
    std::cout << ".\n";
    return kExitOk;
}

int runExport(const CommandContext& context) {
    if (context.args.size() > 1)
        throw UsageError("export-opml takes at most one file");
    Engine engine(context);
    std::ostringstream out;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<opml version=\"2.0\">\n"
        << "<head><title>Pelsu channels</title></head>\n<body>\n";
    for (channels::Channel* channel : engine.manager().channels()) {
        const std::string name = templateProcessor::escapeHtml(toUtf8(nameOrAddress(*channel)));
        out << "<outline type=\"rss\" text=\"" << name << "\" title=\"" << name << "\" xmlUrl=\""
            << templateProcessor::escapeHtml(toUtf8(channel->address())) << "\"/>\n";
    }
    out << "</body>\n</opml>\n";
    if (context.args.empty()) {
        std::cout << out.str();
        return kExitOk;
    }
    std::ofstream file(context.args[0], std::ios::binary | std::ios::trunc);
    file << out.str();
    if (!file)
        throw channels::Exception("Can't write file: " + context.args[0]);
    return kExitOk;
}

} // namespace

extern const Command kImportOpmlCommand;
extern const Command kExportOpmlCommand;

const Command kImportOpmlCommand{"import-opml", "FILE",
                                 "subscribes to every feed of an OPML file (duplicates skipped)",
                                 &runImport};
const Command kExportOpmlCommand{"export-opml", "[FILE]",
                                 "writes the subscriptions as OPML (to standard output by default)",
                                 &runExport};

} // namespace cli
