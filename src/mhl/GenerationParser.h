#pragma once

#include "base/XmlParser.h"
#include "mhl/MHLHistory.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Builds a generation from the text of its file, piece by piece. It takes what other tools write: elements in any
// order, digests of any name; folders and metadata are passed over. Throws MHLFormatError.
class GenerationParser final : private XmlHandler {
public:
    static constexpr std::string_view space = "urn:ASC:MHL:v2.0";

    explicit GenerationParser(std::int64_t seq);
    void feed(std::string_view bytes);
    MHLGeneration finish(); // once

private:
    enum class Kind {
        other,
        root,
        creator,
        tool,
        process,
        ignore,
        pattern,
        hashes,
        hash,
        path,
        digest,
        previous,
        references,
        reference
    };

    void open(const XmlElement& element) override;
    void text(std::string_view piece) override;
    void close() override;
    Kind kindOf(const XmlElement& element) const;
    void openPath(const XmlElement& element);
    void closeRecord();
    void closeReference();
    void refuse(std::string path);

    MHLGeneration generation_;
    std::vector<Kind> open_;
    std::string text_; // of the innermost element that has a meaning
    MHLFileRecord record_;
    std::int64_t bytes_ = 0; // of all files
    bool hasPath_ = false;
    bool rootSeen_ = false;
    XmlParser xml_;
};

// The chain file in the same way.
class ChainParser final : private XmlHandler {
public:
    static constexpr std::string_view space = "urn:ASC:MHL:DIRECTORY:v2.0";

    ChainParser();
    void feed(std::string_view bytes);
    std::vector<MHLChainEntry> finish(); // once

private:
    void open(const XmlElement& element) override;
    void text(std::string_view piece) override;
    void close() override;

    std::vector<MHLChainEntry> entries_;
    std::vector<std::string> open_; // names; empty for elements of no meaning
    std::string text_;
    XmlParser xml_;
};

} // namespace velmora
