// pelsu-cli parse: what the reader makes of a feed file, printed as a channel file stores it.

#include "channels/rssParser.h"
#include "cli/commands.h"

#include <charconv>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <optional>
#include <sstream>

namespace cli {

namespace {

const char* const kParseUsage = "FILE [--max-items N] [--allow-empty] [--no-skip-binary] [--atom] "
                                "[--json] [--convert-encodings] [--address URL]";

int usageError(const std::string& message) {
    std::cerr << "pelsu-cli parse: " << message << "\n"
              << "usage: pelsu-cli parse " << kParseUsage << "\n";
    return kExitUsage;
}

int runParse(const CommandContext& context) {
    std::string file;
    int maxItems = -1;
    std::optional<std::string> address;
    channels::ParseOptions options;
    options.channelName = "parse";
    const auto& args = context.args;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--max-items" && i + 1 < args.size()) {
            const std::string& value = args[++i];
            const char* end = value.data() + value.size();
            const auto [stop, error] = std::from_chars(value.data(), end, maxItems);
            if (value.empty() || error != std::errc() || stop != end)
                return usageError("--max-items needs a whole number up to " +
                                  std::to_string(std::numeric_limits<int>::max()) + ", not '" +
                                  value + "'");
        } else if (args[i] == "--allow-empty") {
            options.allowEmptyFeeds = true;
        } else if (args[i] == "--no-skip-binary") {
            options.skipLeadingBinaryData = false;
        } else if (args[i] == "--atom") {
            options.formats.atom = true;
        } else if (args[i] == "--json") {
            options.formats.json = true;
        } else if (args[i] == "--convert-encodings") {
            options.formats.convertEncodings = true;
        } else if (args[i] == "--address" && i + 1 < args.size()) {
            address = args[++i];
        } else if (file.empty() && (args[i].empty() || args[i][0] != '-')) {
            file = args[i];
        } else {
            return usageError("unexpected argument '" + args[i] + "'");
        }
    }
    if (file.empty())
        return usageError("no feed file given");
    // Relative links resolve as they would for a channel that reads the file.
    options.documentAddress = address ? *address : file;
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::cerr << "Can't open file: " << file << '\n';
        return kExitFailure;
    }
    std::string text;
    in.seekg(0, std::ios::end);
    if (const auto size = in.tellg(); size > 0)
        text.reserve(static_cast<std::size_t>(size));
    in.seekg(0);
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    try {
        channels::RssParser parser;
        auto feed = channels::parseFeed(parser, options, text, maxItems);
        std::string().swap(text);
        feed->writeAsNewFile(std::cout, "Last Feed");
        std::cout.flush();
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return kExitFailure;
    }
    return kExitOk;
}

} // namespace

extern const Command kParseCommand{"parse", kParseUsage,
                                   "parses a feed file and prints it as a channel file stores it",
                                   &runParse};

} // namespace cli
