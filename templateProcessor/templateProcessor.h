// Fills page templates: named variables written {%NAME%} and blocks between {%REPEAT%} and
// {%/REPEAT%} that are repeated once per row.
//
//   {%NAME%}      the variable's value, HTML-escaped (& < > " ' become entities)
//   {%RAW:NAME%}  the value as it is (for values that are mark-up the program made itself)
//   {%REPEAT%} ... {%/REPEAT%}   the text between once per row; inside it a row's variables
//                 come first, then the page's. Blocks do not nest.
//
// A variable without a value is left in the text unchanged, so that text meant for another
// processing step passes through. A {%REPEAT%} without its {%/REPEAT%} (or the other way
// round) is an error.
#pragma once

#include <functional>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace templateProcessor {

class Exception : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

using Variables = std::map<std::string, std::string>;

// The filled text; throws templateProcessor::Exception for an unbalanced block.
std::string process(const std::string& text, const Variables& variables,
                    const std::vector<Variables>& rows = {});

// The same, writing to out as it goes and asking for each row when it is reached, so that a
// page of many rows never sits in memory whole. Throws before writing anything when the
// blocks are unbalanced.
using RowSource = std::function<Variables(std::size_t)>;
void process(const std::string& text, const Variables& variables, std::size_t rowCount,
             const RowSource& row, std::ostream& out);

// & < > " ' as entities.
std::string escapeHtml(const std::string& text);

} // namespace templateProcessor
