// pelsu-cli export-opml: the subscriptions as OPML 2.0.

#include "app/opml.h"
#include "channels/exception.h"
#include "cli/commands.h"
#include "cli/engine.h"

#include <fstream>
#include <iostream>

namespace cli {

namespace {

int runExport(const CommandContext& context) {
    if (context.args.size() > 1)
        throw UsageError("export-opml takes at most one file");
    Engine engine(context);
    const std::string text = app::writeOpml(app::opmlEntriesOf(engine.manager()));
    if (context.args.empty()) {
        std::cout << text;
        return kExitOk;
    }
    std::ofstream file(context.args[0], std::ios::binary | std::ios::trunc);
    file << text;
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
