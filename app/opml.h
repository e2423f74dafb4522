// OPML subscription lists: reading the feeds an OPML file names, subscribing to them, and
// writing the subscriptions back as OPML 2.0. Both front ends use these (pelsu-cli's
// import-opml and export-opml, the desktop client's import dialog and export).
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace channels {
class ChannelManager;
} // namespace channels

namespace app {

// One outline with a feed address. Text is Latin-1, as the engine keeps it.
struct OpmlEntry {
    std::string title;   // "title", else "text"
    std::string address; // "xmlUrl"
    // Why the address can't become a channel (not http, https or a regular local file), or
    // empty when it can.
    std::string problem;

    bool operator==(const OpmlEntry&) const = default;
};

// Every outline with a feed address in the OPML text, however deeply nested, in document
// order. Throws expat::Exception when the text is not well-formed.
std::vector<OpmlEntry> parseOpml(const std::string& text);
// The same from a file; throws channels::Exception "Can't open file: " + shownAs (the path
// when empty) when it can't be read.
std::vector<OpmlEntry> readOpml(const std::string& path, const std::string& shownAs = "");

// The subscriptions as a UTF-8 OPML 2.0 document, one outline per entry.
std::string writeOpml(const std::vector<OpmlEntry>& entries);
// The manager's channels as entries (display name or address, and address), in table order.
std::vector<OpmlEntry> opmlEntriesOf(const channels::ChannelManager& manager);

// The addresses of the manager's channels.
std::set<std::string> subscribedAddresses(const channels::ChannelManager& manager);

struct OpmlImportCounts {
    int added = 0;
    int skipped = 0; // already subscribed, or named twice
    int refused = 0;
};
enum class OpmlOutcome { Added, AlreadySubscribed, Refused };

// Subscribes to each entry in turn: a refused address or one already subscribed (also earlier
// in the list) is passed over; the others become channels named by their titles. report (may
// be empty) hears every entry's outcome.
OpmlImportCounts
importOpmlEntries(channels::ChannelManager& manager, const std::vector<OpmlEntry>& entries,
                  const std::function<void(const OpmlEntry&, OpmlOutcome)>& report = {});
// "Imported 2 channel(s); skipped 1 duplicate(s)[; refused 3 address(es)]."
std::string opmlImportSummary(const OpmlImportCounts& counts);

} // namespace app
