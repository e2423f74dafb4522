// pelsu-cli export-opml: the subscriptions as OPML 2.0.

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

extern const Command kExportOpmlCommand;

const Command kExportOpmlCommand{"export-opml", "[FILE]",
                                 "writes the subscriptions as OPML (to standard output by default)",
                                 &runExport};

} // namespace cli
