// Typed values in profile files, with the encodings every INI file of the system uses:
// strings percent-escaped, booleans "1"/"0", integers "%d", bounded integers that read
// as their default when out of range.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace profile {

// Escapes every byte that is not printable, and every "%", as "%" and two upper-case
// hexadecimal digits.
std::string escapeIniValue(std::string_view value);
// The same, added to the end of out.
void appendEscapedIniValue(std::string& out, std::string_view value);
// Turns every "%" followed by two hexadecimal digits back into that byte.
std::string unescapeIniValue(const std::string& value);

// The unescaped value (trimmed of white space when trim is set), or the default when the
// key is missing.
std::string readIniString(const std::string& file, const std::string& section,
                          const std::string& key, const std::string& defaultValue = "",
                          bool trim = true);
// Writes the escaped value; returns false when the file could not be written.
bool writeIniString(const std::string& file, const std::string& section, const std::string& key,
                    const std::string& value);

// A missing or empty value reads as the default; otherwise the leading decimal number
// (0 when the value does not start with one).
int readIniInt(const std::string& file, const std::string& section, const std::string& key,
               int defaultValue);
// As readIniInt, but a value outside minimum..maximum reads as the default.
int readIniIntRange(const std::string& file, const std::string& section, const std::string& key,
                    int minimum, int maximum, int defaultValue);
// Any non-zero integer reads as true.
bool readIniBool(const std::string& file, const std::string& section, const std::string& key,
                 bool defaultValue);
bool writeIniInt(const std::string& file, const std::string& section, const std::string& key,
                 int value);
bool writeIniBool(const std::string& file, const std::string& section, const std::string& key,
                  bool value);

bool deleteIniSection(const std::string& file, const std::string& section);
// The key names of a section, in file order.
std::vector<std::string> listIniKeys(const std::string& file, const std::string& section);

// The number a profile integer reads as (the leading decimal number, 0 when none).
int parseIniInt(const std::string& text);

} // namespace profile
