// Documents in encodings that expat does not know itself: single-byte ones are read through a
// byte table made with iconv, multi-byte ones are converted to UTF-8 before expat sees them.
#pragma once

#include <array>
#include <optional>
#include <string>

namespace expat {

// The Unicode character of each byte of a single-byte encoding iconv knows (-1 for a byte
// with none); nothing for an unknown encoding or one that uses more than one byte a character.
std::optional<std::array<int, 256>> singleByteTable(const std::string& encoding);

// The encoding named in the document's XML declaration ("" when it names none).
std::string declaredEncoding(const std::string& document);

// The document in UTF-8 with a declaration that says so, when it declares a multi-byte
// encoding that iconv knows and expat does not (Shift_JIS, EUC-JP, GB2312, Big5, EUC-KR, ...);
// nothing otherwise. A byte sequence the encoding does not allow becomes "?".
std::optional<std::string> convertedToUtf8(const std::string& document);

} // namespace expat
