#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct XML_ParserStruct;

namespace velmora {

// A document that is no XML, or more than a parser here takes. `what()` has the reason.
class XmlError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One element as it opens. The views live during the call only.
struct XmlElement {
    std::string_view space; // the namespace, empty without one
    std::string_view name;
    const char* const* attributes = nullptr; // pairs of name and value, ended by null

    // An attribute without a namespace; null when it is not there.
    const char* attribute(std::string_view wanted) const noexcept;
};

class XmlHandler {
public:
    virtual ~XmlHandler() = default;
    virtual void open(const XmlElement& element) = 0;
    virtual void text(std::string_view piece) = 0;
    virtual void close() = 0; // the element opened last
};

// Feeds a document to a handler, piece by piece. Bytes from a disk are hostile: a document type is refused, and with it
// every entity of the document's own; so is a nesting deeper than `maxDepth`, and a tag or comment longer than
// `maxToken`, which bounds what the parser holds at a time. Throws XmlError with line and reason; what the
// handler throws passes through.
class XmlParser {
public:
    static constexpr int maxDepth = 64;
    static constexpr std::size_t maxToken = 1 << 20;

    explicit XmlParser(XmlHandler& handler);
    ~XmlParser();
    XmlParser(const XmlParser&) = delete;
    XmlParser& operator=(const XmlParser&) = delete;

    void feed(std::string_view bytes);
    void finish(); // throws when the document is not complete

private:
    static void onOpen(void* self, const char* name, const char** attributes);
    static void onClose(void* self, const char* name);
    static void onText(void* self, const char* bytes, int length);
    static void onDoctype(void* self, const char*, const char*, const char*, int);
    template <class Work>
    void guarded(Work work) noexcept;
    void parse(std::string_view bytes, bool last);

    struct Free {
        void operator()(XML_ParserStruct* parser) const noexcept;
    };
    std::unique_ptr<XML_ParserStruct, Free> parser_;
    XmlHandler& handler_;
    int depth_ = 0;
    long long fed_ = 0;
    std::exception_ptr failure_; // thrown by the handler; nothing may be thrown through the library's frames
};

namespace Xml {

// For text and for attributes in double quotes.
std::string escape(std::string_view text);
// Without the blanks, tabs and line ends around it.
std::string_view trimmed(std::string_view text);

} // namespace Xml

} // namespace velmora
