#include "records/ManifestRecord.h"

#include "base/Hex.h"
#include "base/JsonShape.h"
#include "records/RecordLimits.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace velmora {

std::int64_t BlockManifest::countFor(std::int64_t size, std::int64_t blockSize) {
    return size / blockSize + (size % blockSize != 0 ? 1 : 0);
}

std::int64_t BlockManifest::length(std::int64_t index, std::int64_t size, std::int64_t blockSize) {
    return std::min(size - index * blockSize, blockSize);
}

std::optional<BlockManifest> BlockManifest::make(std::int64_t size, std::int64_t blockSize,
                                                 std::vector<std::uint64_t> blocks) {
    if (blockSize <= 0 || size < 0 || static_cast<std::int64_t>(blocks.size()) != countFor(size, blockSize))
        return std::nullopt;
    return BlockManifest{size, blockSize, std::move(blocks)};
}

BlockDigits::BlockDigits(std::string_view text) {
    if (Hex::isHex(text, digits_.size()))
        std::ranges::copy(text, digits_.begin());
}

std::vector<BlockDigits> ManifestRecord::hex(const std::vector<std::uint64_t>& blocks) {
    std::vector<BlockDigits> result;
    result.reserve(blocks.size());
    std::array<char, 16> digits{};
    for (const std::uint64_t block : blocks) {
        fmt::format_to(digits.data(), "{:016x}", block);
        result.emplace_back(std::string_view(digits.data(), digits.size()));
    }
    return result;
}

std::optional<std::vector<std::uint64_t>> ManifestRecord::blockValues() const {
    std::vector<std::uint64_t> values;
    values.reserve(blocks.size());
    for (const BlockDigits& block : blocks) {
        const auto value = Hex::parse64(block.text());
        if (!value)
            return std::nullopt;
        values.push_back(*value);
    }
    return values;
}

std::optional<std::uint64_t> ManifestRecord::xxh64Value() const { return xxh64 ? Hex::parse64(*xxh64) : std::nullopt; }

std::optional<BlockManifest> ManifestRecord::toManifest() const {
    auto values = kind == fileKind && first == 0 ? blockValues() : std::nullopt;
    return values ? BlockManifest::make(size, blockSize, *std::move(values)) : std::nullopt;
}

namespace {

using namespace JsonShape;

// All but the blocks.
constexpr std::tuple shape{
    field("v", &ManifestRecord::v),
    field("kind", &ManifestRecord::kind),
    field("gen", &ManifestRecord::gen, 1, RecordLimits::generation),
    field("path", &ManifestRecord::path),
    field("size", &ManifestRecord::size, 0, RecordLimits::fileSize),
    field("modified", &ManifestRecord::modified),
    field("xxh64", &ManifestRecord::xxh64),
    field("xxh128", &ManifestRecord::xxh128),
    field("md5", &ManifestRecord::md5),
    field("blockSize", &ManifestRecord::blockSize, 0, RecordLimits::fileSize),
    field("first", &ManifestRecord::first, 0, RecordLimits::fileSize),
    field("mode", &ManifestRecord::mode),
    ifAny("destinations", &ManifestRecord::destinations),
    field("sourceMedium", &ManifestRecord::sourceMedium),
};

} // namespace

// The blocks are put into the finished text: as JSON values each of them would cost two allocations, on every disk.
// "blocks" is the first list of the line, since only the number "blockSize" sorts before it.
std::string ManifestRecord::line() const {
    nlohmann::json head = JsonShape::encoded(*this, shape);
    head["blocks"] = nlohmann::json::array();
    std::string line = Json::compact(head);
    const std::size_t at = line.find('[') + 1;
    std::string list;
    list.reserve(blocks.size() * 19);
    for (const BlockDigits& block : blocks)
        list.append(list.empty() ? "\"" : ",\"").append(block.text()).append("\"");
    line.insert(at, list);
    return line;
}

std::optional<ManifestRecord> ManifestRecord::parse(std::string_view line) {
    try {
        ManifestRecord record;
        JsonReader in(line);
        JsonShape::streamInto(record, in, shape, [&](std::string_view key) {
            if (key != "blocks")
                return in.skip();
            record.blocks.clear();
            if (!in.isNull())
                in.array([&] { record.blocks.emplace_back(in.string()); });
        });
        in.end();
        return record;
    } catch (const FormatError&) {
        return std::nullopt;
    }
}

} // namespace velmora
