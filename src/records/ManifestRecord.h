#pragma once

#include "base/Timestamp.h"
#include "records/BackupPlace.h"
#include "records/CardKey.h"

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The block hashes of a finished file.
struct BlockManifest {
    std::int64_t size = 0;
    std::int64_t blockSize = 0;
    std::vector<std::uint64_t> blocks; // XXH3 64-bit of each block

    // None unless blockSize > 0, size >= 0 and there are exactly ceil(size / blockSize) hashes.
    static std::optional<BlockManifest> make(std::int64_t size, std::int64_t blockSize,
                                             std::vector<std::uint64_t> blocks);
    // ceil(size / blockSize); blockSize > 0, size >= 0.
    static std::int64_t countFor(std::int64_t size, std::int64_t blockSize);
    // Bytes of one block; the last one may be short.
    static std::int64_t length(std::int64_t index, std::int64_t size, std::int64_t blockSize);
    bool operator==(const BlockManifest&) const = default;
};

// Where a half-written file can be continued.
struct PartCheckpoint {
    std::string path;
    std::int64_t size = 0;
    Timestamp modified;
    std::int64_t blockSize = 0;
    std::vector<std::uint64_t> blocks; // all blocks that are safely on the disk, from block 0
    bool operator==(const PartCheckpoint&) const = default;
};

// The 16 hexadecimal digits of a block hash, in place: a card has as many of them as blocks. Text of any other shape is
// kept as none.
class BlockDigits {
public:
    explicit BlockDigits(std::string_view text);
    std::string_view text() const noexcept { return {digits_.data(), digits_[0] == 0 ? 0 : digits_.size()}; }
    bool operator==(const BlockDigits&) const = default;

private:
    std::array<char, 16> digits_{};
};

// One line of the manifest in a card folder. A "run" line is the first that a run leaves, before any of its files: it
// says which folders belong to the backup, so that one of them alone still tells of the others. A "file" line says that
// the file is complete and durable on this destination and holds the hashes of all its blocks. A "part" line is a
// checkpoint of a file still being written and holds only the blocks since the checkpoint before.
struct ManifestRecord {
    static constexpr std::string_view fileKind = "file";
    static constexpr std::string_view partKind = "part";
    static constexpr std::string_view runKind = "run";

    std::int64_t v = 1;
    std::string kind{fileKind};
    std::int64_t gen = 1;
    std::string path; // as on the source, relative to the card folder
    std::int64_t size = 0;
    Timestamp modified; // written to the whole second, rounded down
    std::optional<std::string> xxh64;
    std::optional<std::string> xxh128;
    std::optional<std::string> md5;
    std::int64_t blockSize = 0;
    std::int64_t first = 0; // index of the first block in `blocks`
    std::vector<BlockDigits> blocks;
    std::optional<std::string> mode;       // of a "run" line: "full", "append" or "repair"
    std::vector<BackupPlace> destinations; // of a "run" line: every folder of the backup, written by this run or not
    std::optional<CardKey> sourceMedium;   // of a "run" line: the card, where it tells what it is

    static std::vector<BlockDigits> hex(const std::vector<std::uint64_t>& blocks);
    std::optional<std::vector<std::uint64_t>> blockValues() const; // none when one of them is malformed
    std::optional<std::uint64_t> xxh64Value() const;
    std::optional<BlockManifest> toManifest() const; // none for a "part" line

    // One JSON object without a line feed.
    std::string line() const;
    // None when the line is no such record; missing keys read as their defaults, unknown ones are passed over.
    static std::optional<ManifestRecord> parse(std::string_view line);
    bool operator==(const ManifestRecord&) const = default;
};

} // namespace velmora
