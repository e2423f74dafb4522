// A small event-driven XML reader over expat. A subclass hears about elements through two
// virtual hooks and through a static table of handlers bound to element names; the base keeps
// the stack of open elements and the text since the last start tag, converted to Latin-1.
#pragma once

#include "expat/exception.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace msglog {
class MsgGroup;
}

namespace expat {

class Parser;

// A subclass's handler, called with no arguments: static_cast<Handler>(&Sub::onTitleEnd).
using Handler = void (Parser::*)();

enum ElementEvent : int { kStartElement = 0, kEndElement = 1, kEndOfTable = -1 };

// One row of a handler table; the table ends with a row whose event is kEndOfTable.
struct ElementHandler {
    int event;
    Handler handler;
    const char* name; // compared without regard to case
};

class Parser {
public:
    // The table is indexed once here; it must not change while the parser lives.
    explicit Parser(const ElementHandler* handlers = nullptr);
    virtual ~Parser();
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    // Parses the whole buffer as one final piece; a parser may parse many documents one
    // after another, and reuses its buffers and its expat parser between them. Throws
    // expat::Exception with "XML parse failed (code:Lline/Ccolumn): text" when the document is not
    // well-formed; handlers that ran before the fault keep their effects.
    void parse(const char* data, std::size_t length);

    // The text collected since the most recent start tag (Latin-1).
    const std::string& characterData() const {
        if (m_lentTo)
            restoreCharacterData();
        return m_characterData;
    }
    // The open elements, outermost first.
    const std::vector<std::string>& tagStack() const { return m_tagStack; }
    // True when the element below the top of the stack is named name (ignoring case).
    bool isParent(const char* name) const;

    // Elements open at once beyond this many end the parse with an error (0: no limit).
    void setMaxDepth(std::size_t depth) { m_maxDepth = depth; }
    // Whether a document in a single-byte encoding expat does not know is read through iconv's
    // table for it (off: it fails with expat's "unknown encoding").
    void setReadUnknownEncodings(bool on) { m_readUnknownEncodings = on; }

    // Trace groups; null (the default) writes no trace.
    void setTraceGroups(msglog::MsgGroup* elements, msglog::MsgGroup* tagStack,
                        msglog::MsgGroup* characterData);

protected:
    // Registers the callbacks and feeds the buffer to the expat parser in one final call.
    virtual void parseBuffer(const char* data, std::size_t length);
    // Called once the element is on the tag stack but before its text starts: characterData()
    // still reads the text that came before the start tag.
    virtual void onStartElement(const char* name, const char** attributes);
    virtual void onEndElement(const char* name);
    // Hook for every piece of text as expat hands it over (UTF-8), before it joins the
    // character data; the base version does nothing.
    virtual void onText(const char* text, std::size_t length);
    // Ends the parse from inside a handler; parse then throws expat::Exception with the
    // message followed by the line and column.
    void abort(const std::string& message);
    // Moves the text collected so far into field, dropping what field held, without copying
    // it; characterData() still reads the same, copying the text back only when read before
    // the next start tag. Until then field must not change other than by assigning it
    // characterData().
    void moveCharacterDataInto(std::string& field);

private:
    friend struct Callbacks;
    void startElement(const char* name, const char** attributes);
    void endElement(const char* name);
    void characters(const char* text, int length);
    void traceCharacters(const char* text, int length);
    void indexHandlers(const ElementHandler* handlers);
    // The first start row and the first end row (-1: none) for an element's name.
    std::pair<int, int> rowsFor(const char* name, std::size_t length) const;
    void run(int row) {
        if (row >= 0)
            (this->*m_handlers[static_cast<std::size_t>(row)])();
    }
    std::string tagStackText() const;
    void restoreCharacterData() const;

    // The distinct names of the handler table, each with its first start and end row, so
    // that one lookup at the start tag serves both events. They are ordered by the length of
    // the name, so that an element is compared only with names as long as its own: those of
    // length n run from m_nameStart[k] to m_nameStart[k + 1], k = min(n, kLengths - 1).
    struct IndexedName {
        std::size_t nameAt; // in m_names, where the names follow one another, each ended by NUL
        int startRow;
        int endRow;
    };
    static constexpr std::size_t kLengths = 32;
    std::vector<Handler> m_handlers; // by row
    std::vector<IndexedName> m_index;
    std::string m_names;
    std::vector<std::int32_t> m_foldedNames; // m_names folded by the table m_foldedFor
    const std::int32_t* m_foldedFor = nullptr;
    std::array<std::uint16_t, kLengths + 1> m_nameStart{};
    const std::int32_t* m_fold;    // the case folding of the locale, taken at each parse
    void* m_handle = nullptr;      // the expat parser while a parse runs
    void* m_spareHandle = nullptr; // the expat parser of the last parse, reset for the next one
    std::vector<std::string> m_tagStack;
    std::vector<int> m_endRows; // the end row of each open element
    // The text since the last start tag; while lent, only its part after the lent text.
    mutable std::string m_characterData;
    mutable std::string* m_lentTo = nullptr; // the field holding the start of the text
    std::size_t m_maxDepth = 0;
    bool m_readUnknownEncodings = false;
    std::string m_abortMessage;
    msglog::MsgGroup* m_elementGroup = nullptr;
    msglog::MsgGroup* m_tagStackGroup = nullptr;
    msglog::MsgGroup* m_characterDataGroup = nullptr;
};

// Parses with expat alone and handlers that do nothing: the baseline that measurements of the
// parsers compare against. Returns whether the document is well-formed.
bool parseWithEmptyHandlers(const char* data, std::size_t length);

// Appends UTF-8 text as Latin-1: one byte per character below 256, "?" for every UTF-16 unit
// of the others (two for a character beyond the basic plane).
void appendUtf8AsLatin1(std::string& out, const char* text, std::size_t length);

} // namespace expat
