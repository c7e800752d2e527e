#include "mhl/GenerationParser.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "mhl/MHLReader.h"
#include "records/RecordLimits.h"

#include <charconv>
#include <cstring>
#include <utility>

namespace velmora {

namespace {

// Far above what a tool writes. What stands in a generation is otherwise bounded by the length of its file.
constexpr std::size_t maxText = 64 * 1024;
constexpr std::size_t maxHashes = 64;
constexpr std::size_t maxReferences = 10'000;
constexpr std::size_t maxFiles = 4'000'000;
constexpr std::size_t maxRefused = 10'000;
constexpr std::size_t maxChainEntries = 100'000;

void addText(std::string& text, std::string_view piece) {
    if (text.size() + piece.size() > maxText) {
        throw MHLFormatError("a text is too long");
    }
    text += piece;
}

std::optional<std::int64_t> number(const char* text) {
    if (text == nullptr) {
        return std::nullopt;
    }
    const std::string_view digits = Xml::trimmed(text);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    const bool whole = error == std::errc{} && end == digits.data() + digits.size() && value >= 0;
    return whole ? std::optional(value) : std::nullopt;
}

// A path is taken as it stands: blanks around it may belong to the name. Line ends cannot; they come from a tool that
// lays its text out, and then the blanks do as well.
std::string pathText(const std::string& text) {
    return text.find('\n') == std::string::npos ? text : std::string(Xml::trimmed(text));
}

// What is no XML is no ASC MHL either.
template <class Work>
void parsing(const Work& work) {
    try {
        work();
    } catch (const XmlError& error) {
        throw MHLFormatError(error.what());
    }
}

} // namespace

GenerationParser::GenerationParser(std::int64_t seq) : xml_(*this) { generation_.seq = seq; }

void GenerationParser::feed(std::string_view bytes) {
    parsing([&] { xml_.feed(bytes); });
}

MHLGeneration GenerationParser::finish() {
    parsing([&] { xml_.finish(); });
    return std::move(generation_);
}

GenerationParser::Kind GenerationParser::kindOf(const XmlElement& element) const {
    if (element.space != space) {
        return Kind::other;
    }
    const std::string_view name = element.name;
    switch (open_.empty() ? Kind::other : open_.back()) {
    case Kind::root:
        return name == "creatorinfo"   ? Kind::creator
               : name == "processinfo" ? Kind::process
               : name == "hashes"      ? Kind::hashes
               : name == "references"  ? Kind::references
                                       : Kind::other;
    case Kind::creator:
        return name == "tool" ? Kind::tool : Kind::other;
    case Kind::process:
        return name == "ignore" ? Kind::ignore : Kind::other;
    case Kind::ignore:
        return name == "pattern" ? Kind::pattern : Kind::other;
    case Kind::hashes:
        return name == "hash" ? Kind::hash : Kind::other;
    case Kind::references:
        return name == "hashlistreference" ? Kind::reference : Kind::other;
    case Kind::reference:
        return name == "path" ? Kind::path : name == "c4" ? Kind::digest : Kind::other;
    case Kind::hash:
        // The old name of a renamed file is an attribute of the path with some tools, an element with others.
        return name == "path"           ? Kind::path
               : name == "previousPath" ? Kind::previous
               : name == "metadata"     ? Kind::other
                                        : Kind::digest;
    default:
        return Kind::other;
    }
}

void GenerationParser::open(const XmlElement& element) {
    if (!rootSeen_) {
        if (element.space != space || element.name != "hashlist") {
            throw MHLFormatError("not an ASC MHL file");
        }
        rootSeen_ = true;
        open_.push_back(Kind::root);
        return;
    }
    const Kind kind = kindOf(element);
    open_.push_back(kind);
    if (kind == Kind::other) {
        return;
    }
    text_.clear();
    if (kind == Kind::hash || kind == Kind::reference) {
        record_ = {};
        record_.generation = generation_.seq;
        hasPath_ = false;
    } else if (kind == Kind::path) {
        openPath(element);
    } else if (kind == Kind::digest) {
        if (record_.hashes.size() >= maxHashes) {
            throw MHLFormatError("a file has too many digests");
        }
        MHLHash& hash = record_.hashes.emplace_back();
        hash.algorithm = element.name;
        if (const char* action = element.attribute("action")) {
            hash.action = action;
        }
    }
}

void GenerationParser::openPath(const XmlElement& element) {
    hasPath_ = true;
    record_.size = number(element.attribute("size"));
    if (const std::int64_t size = record_.size.value_or(0); size > 0) {
        if (size > RecordLimits::fileSize || size > RecordLimits::bytesOfOneList - bytes_) {
            throw MHLFormatError("a file has a size that no file can have");
        }
        bytes_ += size;
    }
    if (const char* modified = element.attribute("lastmodificationdate")) {
        record_.modified = MHLReader::parseDate(modified);
    }
    if (const char* previous = element.attribute("previousPath")) {
        record_.previousPath = previous;
    }
}

void GenerationParser::text(std::string_view piece) {
    switch (open_.empty() ? Kind::other : open_.back()) {
    case Kind::tool:
    case Kind::pattern:
    case Kind::path:
    case Kind::digest:
    case Kind::previous:
        addText(text_, piece);
        break;
    default:
        break;
    }
}

void GenerationParser::close() {
    const Kind kind = open_.back();
    open_.pop_back();
    switch (kind) {
    case Kind::tool:
        generation_.tool = Xml::trimmed(text_);
        break;
    case Kind::pattern:
        generation_.ignore.emplace_back(Xml::trimmed(text_));
        break;
    case Kind::path:
        record_.path = pathText(text_);
        break;
    case Kind::previous:
        record_.previousPath = pathText(text_);
        break;
    case Kind::digest:
        record_.hashes.back().value = Xml::trimmed(text_);
        break;
    case Kind::hash:
        closeRecord();
        break;
    case Kind::reference:
        closeReference();
        break;
    default:
        break;
    }
}

void GenerationParser::refuse(std::string path) {
    if (generation_.refusedPaths.size() >= maxRefused) {
        throw MHLFormatError("too many paths outside the card folder");
    }
    generation_.refusedPaths.push_back(std::move(path));
}

void GenerationParser::closeReference() {
    if (generation_.references.size() >= maxReferences) {
        throw MHLFormatError("too many references");
    }
    if (!isSafeRelative(record_.path)) {
        refuse(std::move(record_.path));
        return;
    }
    generation_.references.push_back(
        {std::move(record_.path), record_.hashes.empty() ? std::string() : std::move(record_.hashes.front().value)});
}

void GenerationParser::closeRecord() {
    if (!hasPath_) {
        throw MHLFormatError("a hash element has no path");
    }
    if (generation_.files.size() >= maxFiles) {
        throw MHLFormatError("too many files");
    }
    // Nobody may join such a path to the folder, so it never becomes a record; it is told by its text alone.
    if (!isSafeRelative(record_.path)) {
        refuse(std::move(record_.path));
        return;
    }
    if (record_.previousPath && !isSafeRelative(*record_.previousPath)) {
        refuse(std::move(*record_.previousPath));
        record_.previousPath.reset();
    }
    generation_.files.push_back(std::make_shared<const MHLFileRecord>(std::move(record_)));
}

ChainParser::ChainParser() : xml_(*this) {}

void ChainParser::feed(std::string_view bytes) {
    parsing([&] { xml_.feed(bytes); });
}

std::vector<MHLChainEntry> ChainParser::finish() {
    parsing([&] { xml_.finish(); });
    return std::move(entries_);
}

void ChainParser::open(const XmlElement& element) {
    const bool known = element.space == space;
    if (open_.empty() && !(known && element.name == "ascmhldirectory")) {
        throw MHLFormatError("not an ASC MHL chain");
    }
    const bool inRoot = open_.size() == 1;
    const bool inEntry = open_.size() == 2 && open_.back() == "hashlist";
    const bool meant = known && (open_.empty() || (inRoot && element.name == "hashlist") ||
                                 (inEntry && (element.name == "path" || element.name == "c4")));
    open_.emplace_back(meant ? element.name : std::string_view{});
    if (meant && inRoot) {
        const auto seq = number(element.attribute("sequencenr"));
        if (!seq || *seq < 1 || *seq > RecordLimits::generation) {
            throw MHLFormatError("an entry has no sequence number");
        }
        if (entries_.size() >= maxChainEntries) {
            throw MHLFormatError("too many entries");
        }
        entries_.push_back({*seq, {}, {}});
    }
    text_.clear();
}

void ChainParser::text(std::string_view piece) {
    if (!open_.empty() && (open_.back() == "path" || open_.back() == "c4")) {
        addText(text_, piece);
    }
}

void ChainParser::close() {
    if (open_.back() == "path") {
        entries_.back().path = pathText(text_);
    } else if (open_.back() == "c4") {
        entries_.back().c4 = Xml::trimmed(text_);
    }
    open_.pop_back();
}

} // namespace velmora
