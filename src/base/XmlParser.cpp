#include "base/XmlParser.h"

#include <algorithm>
#include <expat.h>
#include <fmt/format.h>
#include <new>

namespace velmora {

namespace {

constexpr char separator = '\n'; // between namespace and name; neither can hold it
constexpr std::size_t pieceBytes = 64 * 1024;

} // namespace

const char* XmlElement::attribute(std::string_view wanted) const noexcept {
    for (const char* const* pair = attributes; pair != nullptr && *pair != nullptr; pair += 2) {
        if (wanted == *pair) {
            return pair[1];
        }
    }
    return nullptr;
}

XmlParser::XmlParser(XmlHandler& handler) : parser_(XML_ParserCreateNS(nullptr, separator)), handler_(handler) {
    if (!parser_) {
        throw std::bad_alloc();
    }
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(parser_.get(), onOpen, onClose);
    XML_SetCharacterDataHandler(parser_.get(), onText);
    XML_SetStartDoctypeDeclHandler(parser_.get(), onDoctype);
    XML_SetParamEntityParsing(parser_.get(), XML_PARAM_ENTITY_PARSING_NEVER);
}

XmlParser::~XmlParser() = default;

void XmlParser::Free::operator()(XML_ParserStruct* parser) const noexcept { XML_ParserFree(parser); }

template <class Work>
void XmlParser::guarded(Work work) noexcept {
    if (failure_) {
        return; // the parser may still hand out what it has begun
    }
    try {
        work();
    } catch (...) {
        failure_ = std::current_exception();
        XML_StopParser(parser_.get(), XML_FALSE);
    }
}

void XmlParser::onOpen(void* self, const char* name, const char** attributes) {
    auto& parser = *static_cast<XmlParser*>(self);
    parser.guarded([&] {
        if (++parser.depth_ > maxDepth) {
            throw XmlError("elements are nested too deeply");
        }
        const std::string_view full(name);
        const std::size_t at = full.find(separator);
        const bool spaced = at != std::string_view::npos;
        parser.handler_.open(
            {spaced ? full.substr(0, at) : std::string_view{}, spaced ? full.substr(at + 1) : full, attributes});
    });
}

void XmlParser::onClose(void* self, const char*) {
    auto& parser = *static_cast<XmlParser*>(self);
    parser.guarded([&] {
        --parser.depth_;
        parser.handler_.close();
    });
}

void XmlParser::onText(void* self, const char* bytes, int length) {
    auto& parser = *static_cast<XmlParser*>(self);
    parser.guarded([&] { parser.handler_.text({bytes, static_cast<std::size_t>(length)}); });
}

void XmlParser::onDoctype(void* self, const char*, const char*, const char*, int) {
    auto& parser = *static_cast<XmlParser*>(self);
    parser.guarded([] { throw XmlError("a document type is not accepted"); });
}

void XmlParser::parse(std::string_view bytes, bool last) {
    const auto status = XML_Parse(parser_.get(), bytes.data(), static_cast<int>(bytes.size()), last ? 1 : 0);
    if (failure_) {
        std::rethrow_exception(failure_);
    }
    if (status != XML_STATUS_OK) {
        throw XmlError(fmt::format("line {}: {}", XML_GetCurrentLineNumber(parser_.get()),
                                   XML_ErrorString(XML_GetErrorCode(parser_.get()))));
    }
    fed_ += static_cast<long long>(bytes.size());
    // What the library could not yet make an event of, it keeps and looks at again with every piece.
    const long long held = fed_ - std::max<long long>(0, XML_GetCurrentByteIndex(parser_.get()));
    if (!last && held > static_cast<long long>(maxToken)) {
        throw XmlError("a tag is too long");
    }
}

void XmlParser::feed(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::string_view piece = bytes.substr(0, pieceBytes);
        parse(piece, false);
        bytes.remove_prefix(piece.size());
    }
}

void XmlParser::finish() { parse({}, true); }

std::string Xml::escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string_view Xml::trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace velmora
