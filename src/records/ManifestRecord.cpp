#include "records/ManifestRecord.h"

#include "base/Hex.h"
#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

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

std::vector<std::string> ManifestRecord::hex(const std::vector<std::uint64_t>& blocks) {
    std::vector<std::string> result;
    result.reserve(blocks.size());
    for (const std::uint64_t block : blocks)
        result.push_back(Hex::of64(block));
    return result;
}

std::optional<std::vector<std::uint64_t>> ManifestRecord::blockValues() const {
    std::vector<std::uint64_t> values;
    values.reserve(blocks.size());
    for (const std::string& block : blocks) {
        const auto value = Hex::parse64(block);
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

void to_json(nlohmann::json& j, const ManifestRecord& value) {
    j = {{"v", value.v},       {"kind", value.kind},           {"gen", value.gen},     {"path", value.path},
         {"size", value.size}, {"blockSize", value.blockSize}, {"first", value.first}, {"blocks", value.blocks}};
    Json::put(j, "modified", value.modified);
    Json::put(j, "xxh64", value.xxh64);
    Json::put(j, "xxh128", value.xxh128);
    Json::put(j, "md5", value.md5);
}

void from_json(const nlohmann::json& j, ManifestRecord& value) {
    const JsonFields fields(j);
    value.v = fields.integerOr("v", 1);
    value.kind = fields.string("kind", ManifestRecord::fileKind);
    value.gen = fields.integerOr("gen", 1);
    value.path = fields.string("path", "");
    value.size = fields.integerOr("size", 0);
    value.modified = fields.timestamp("modified", Timestamp{});
    value.xxh64 = fields.optionalString("xxh64");
    value.xxh128 = fields.optionalString("xxh128");
    value.md5 = fields.optionalString("md5");
    value.blockSize = fields.integerOr("blockSize", 0);
    value.first = fields.integerOr("first", 0);
    value.blocks = fields.optionalStrings("blocks").value_or(std::vector<std::string>{});
}

std::string ManifestRecord::line() const { return Json::compact(*this); }

std::optional<ManifestRecord> ManifestRecord::parse(std::string_view line) {
    try {
        return Json::parse(line).get<ManifestRecord>();
    } catch (const FormatError&) {
        return std::nullopt;
    }
}

} // namespace velmora
