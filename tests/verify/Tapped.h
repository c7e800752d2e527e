#pragma once

#include "blocks/BlockVerifier.h"
#include "blocks/HashStreams.h"
#include "verify/TapFile.h"

#include <memory>
#include <string>

namespace velmora::test {

// DCIM/A.mov in a card folder, and what the copy knows of it.
struct Tapped {
    Tapped(const std::string& cardFolder, std::size_t size, std::int64_t blockSize)
        : Tapped(cardFolder, FileTree::bytes(size, size), blockSize) {}
    Tapped(std::string cardFolder, std::string bytes, std::int64_t blockSize)
        : card(std::move(cardFolder)), path(card + "/DCIM/A.mov"), content(std::move(bytes)) {
        FileTree::write(path, content);
        BlockManifest manifest{static_cast<std::int64_t>(content.size()), blockSize, {}};
        for (std::size_t at = 0; at < content.size(); at += static_cast<std::size_t>(blockSize)) {
            const std::string_view block = std::string_view(content).substr(at, static_cast<std::size_t>(blockSize));
            manifest.blocks.push_back(blockHash(block.data(), block.size()));
        }
        verifier = std::make_shared<BlockVerifier>(std::move(manifest));
    }
    std::shared_ptr<TapFile> open() const { return std::make_shared<TapFile>(card, "DCIM/A.mov", verifier); }

    std::string card, path, content;
    std::shared_ptr<BlockVerifier> verifier;
};

} // namespace velmora::test
