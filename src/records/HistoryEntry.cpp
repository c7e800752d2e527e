#include "records/HistoryEntry.h"

#include "base/JsonShape.h"
#include "base/RelativePath.h"
#include "records/RecordReaders.h"

#include <algorithm>
#include <set>
#include <string>
#include <string_view>

namespace velmora {

using nlohmann::json;

namespace {

using namespace JsonShape;

constexpr std::tuple cardShape{
    field("identity", &HistoryCard::identity),     required("fsSerial", &HistoryCard::fsSerial),
    required("capacity", &HistoryCard::capacity),  field("label", &HistoryCard::label),
    field("filesystem", &HistoryCard::filesystem),
};

constexpr std::tuple destinationShape{
    required("root", &HistoryDestination::root),
    required("cardPath", &HistoryDestination::cardPath),
};

constexpr std::tuple generationShape{
    required("seq", &HistoryGeneration::seq),           field("kind", &HistoryGeneration::kind),
    required("finished", &HistoryGeneration::finished), field("files", &HistoryGeneration::files),
    field("bytes", &HistoryGeneration::bytes),          field("verified", &HistoryGeneration::verified),
};

constexpr std::tuple verificationShape{
    required("cardPath", &HistoryVerification::cardPath), field("volumeSerial", &HistoryVerification::volumeSerial),
    field("clean", &HistoryVerification::clean),          field("failed", &HistoryVerification::failed),
    ifAny("found", &HistoryVerification::found),
};

constexpr std::tuple entryShape{
    required("id", &HistoryEntry::id),
    field("card", &HistoryEntry::card),
    required("source", &HistoryEntry::source),
    required("cardName", &HistoryEntry::cardName),
    required("date", &HistoryEntry::date),
    field("project", &HistoryEntry::project),
    required("finished", &HistoryEntry::finished),
    required("success", &HistoryEntry::success),
    required("verified", &HistoryEntry::verified),
    field("failedFiles", &HistoryEntry::failedFiles),
    field("hashAlgorithms", &HistoryEntry::hashAlgorithms),
    required("files", &HistoryEntry::files),
    required("bytes", &HistoryEntry::bytes),
    required("fingerprint", &HistoryEntry::fingerprint),
    required("shape", &HistoryEntry::shape),
    field("fileList", &HistoryEntry::fileList),
    field("destinations", &HistoryEntry::destinations),
    field("generations", &HistoryEntry::generations),
    field("reels", &HistoryEntry::reels),
    field("unfinished", &HistoryEntry::unfinished),
    field("safeToEject", &HistoryEntry::safeToEject),
    field("safeToFormat", &HistoryEntry::safeToFormat),
    ifAny("verifications", &HistoryEntry::verifications),
};

// What of an entry has no field here, as text; it must not be lost when the entry is written again.
std::string otherKeys(const json& entry) {
    static constexpr auto known = keys(entryShape);
    json other;
    for (const auto& [key, value] : entry.items())
        if (!std::ranges::binary_search(known, std::string_view(key)))
            other[key] = value;
    return other.is_null() ? std::string() : Json::compact(other);
}

// A history that was edited by hand may name a folder twice.
void nameOnce(std::vector<HistoryDestination>& destinations) {
    std::set<std::string> named;
    std::erase_if(destinations, [&](const HistoryDestination& destination) {
        return !named.insert(RelativePath::withoutTrailingSlash(destination.cardPath)).second;
    });
}

} // namespace

HistoryGeneration HistoryGeneration::of(const OffloadReport& report, std::int64_t seq) {
    HistoryGeneration generation;
    generation.seq = seq;
    generation.kind = report.kind.value_or("copy");
    generation.finished = report.finished;
    generation.files = report.totalFiles;
    generation.bytes = report.totalBytes;
    generation.verified =
        report.verified && !report.verifyIncomplete.value_or(false) && !report.verifyPending.value_or(false);
    return generation;
}

void to_json(json& j, const HistoryCard& value) { j = JsonShape::encoded(value, cardShape); }
void from_json(const json& j, HistoryCard& value) { value = JsonShape::decoded<HistoryCard>(j, cardShape); }

void to_json(json& j, const HistoryDestination& value) { j = JsonShape::encoded(value, destinationShape); }
void from_json(const json& j, HistoryDestination& value) {
    value = JsonShape::decoded<HistoryDestination>(j, destinationShape);
}

void to_json(json& j, const HistoryGeneration& value) { j = JsonShape::encoded(value, generationShape); }
void from_json(const json& j, HistoryGeneration& value) {
    value = JsonShape::decoded<HistoryGeneration>(j, generationShape);
}

void to_json(json& j, const HistoryVerification& value) { j = JsonShape::encoded(value, verificationShape); }
void from_json(const json& j, HistoryVerification& value) {
    value = JsonShape::decoded<HistoryVerification>(j, verificationShape);
}

static void fromReader(JsonReader& in, HistoryCard& value) { JsonShape::streamInto(value, in, cardShape); }
static void fromReader(JsonReader& in, HistoryDestination& value) {
    JsonShape::streamInto(value, in, destinationShape);
}
static void fromReader(JsonReader& in, HistoryGeneration& value) { JsonShape::streamInto(value, in, generationShape); }
static void fromReader(JsonReader& in, HistoryVerification& value) {
    JsonShape::streamInto(value, in, verificationShape);
}
void fromReader(JsonReader& in, HistoryEntry& value) {
    json other;
    JsonShape::streamInto(value, in, entryShape, [&](std::string_view key) {
        std::string name(key);
        other[name] = in.value();
    });
    nameOnce(value.destinations);
    value.otherKeys = other.is_null() ? std::string() : Json::compact(other);
}

void to_json(json& j, const HistoryEntry& value) {
    j = JsonShape::encoded(value, entryShape);
    if (!value.otherKeys.empty())
        j.update(Json::parse(value.otherKeys));
}
void from_json(const json& j, HistoryEntry& value) {
    value = JsonShape::decoded<HistoryEntry>(j, entryShape);
    nameOnce(value.destinations);
    value.otherKeys = otherKeys(j);
}

} // namespace velmora
