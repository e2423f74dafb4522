// Mark-up removal and the lenient entity decoding used for feed titles and descriptions.
#pragma once

#include <string>
#include <string_view>

namespace htmlStripper {

// Decodes the entities nbsp, lt, gt, quot, amp, tilde and circ wherever an ampersand is
// followed by one of those names (ignoring case), with or without the closing ";". Numeric
// references and other names stay as they are; so does an ampersand that starts none of them.
std::string decodeEntities(const std::string& text);
// The same, appended to out (whose capacity a caller can reuse between texts).
void appendDecodedEntities(std::string& out, std::string_view text);

// Removes tags and quoted text: quote characters open and close quotes (and are dropped), "<"
// outside quotes opens a tag, ">" closes it and becomes a blank; only characters outside
// quotes and tags are kept, non-printable ones as blanks. Then decodes entities as above.
std::string stripMarkup(const std::string& text);

// Plain text for display: tags removed (a tag ends a word), entities decoded, runs of white
// space made one blank. Unlike stripMarkup, quoted prose is kept.
std::string plainText(const std::string& html);

} // namespace htmlStripper
