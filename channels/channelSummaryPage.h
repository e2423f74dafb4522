// The channel summary page: the channel's template filled with its fields and its items'.
//
// Channel variables: CHANNEL-ID, CHANNEL-NAME, CHANNEL-DESCRIPTION, CHANNEL-HOME-URL,
// CHANNEL-IMAGE-URL, CHANNEL-IMAGE-WIDTH, CHANNEL-IMAGE-HEIGHT, CHANNEL-COPYRIGHT,
// CHANNEL-EDITOR, CHANNEL-WEBMASTER, CHANNEL-PUBDATE, CHANNEL-LAST-BUILD-DATE,
// CHANNEL-GENERATOR, CHANNEL-ITEM-COUNT, CHANNEL-LAST-FETCH, CHANNEL-ADDRESS and
// BACKGROUND-IMAGE. Item variables (inside {%REPEAT%}): ITEM-NUMBER, ITEM-ID, ITEM-TITLE,
// ITEM-DESCRIPTION (plain text), ITEM-URL, ITEM-SOURCE, ITEM-AUTHOR, ITEM-COMMENTS-URL,
// ITEM-PUBDATE.
#pragma once

#include <cstdint>
#include <string>

namespace channels {

class Channel;

// Writes the channel's summary page into its ".html" temporary file and returns the file's
// path. Relative template and background names are taken from userDir. Throws
// channels::Exception when the template can't be read or is malformed.
std::string writeChannelSummaryPage(Channel& channel, const std::string& userDir);

// A fetch time as shown to the user ("2026-11-23 08:00", local time), or "never" for 0.
std::string fetchTimeText(std::int32_t time);

} // namespace channels
