#include "records/HistoryEntry.h"

#include "base/JsonFields.h"
#include "records/OffloadReport.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <string_view>

namespace velmora {

using nlohmann::json;

namespace {

template <class T>
std::vector<T> list(const JsonFields& fields, const char* key) {
    const json* values = fields.array(key);
    return values ? values->get<std::vector<T>>() : std::vector<T>{};
}

// What of an entry has no field here, as text; it must not be lost when the entry is written again.
std::string otherKeys(const json& entry) {
    static constexpr std::array<std::string_view, 23> known = {
        "bytes",    "card",    "cardName",    "date",          "destinations", "failedFiles",
        "fileList", "files",   "fingerprint", "finished",      "generations",  "hashAlgorithms",
        "id",       "project", "reels",       "safeToEject",   "safeToFormat", "shape",
        "source",   "success", "unfinished",  "verifications", "verified"};
    static_assert(std::ranges::is_sorted(known));
    json other;
    for (const auto& [key, value] : entry.items())
        if (!std::ranges::binary_search(known, std::string_view(key)))
            other[key] = value;
    return other.is_null() ? std::string() : Json::compact(other);
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

void to_json(json& j, const HistoryCard& value) {
    j = {{"fsSerial", value.fsSerial}, {"capacity", value.capacity}};
    Json::put(j, "identity", value.identity);
    Json::put(j, "label", value.label);
    Json::put(j, "filesystem", value.filesystem);
}

void from_json(const json& j, HistoryCard& value) {
    const JsonFields fields(j);
    value.identity = fields.optionalString("identity");
    value.fsSerial = fields.string("fsSerial");
    value.capacity = fields.integer("capacity");
    value.label = fields.optionalString("label");
    value.filesystem = fields.optionalString("filesystem");
}

void to_json(json& j, const HistoryDestination& value) { j = {{"root", value.root}, {"cardPath", value.cardPath}}; }

void from_json(const json& j, HistoryDestination& value) {
    const JsonFields fields(j);
    value.root = fields.string("root");
    value.cardPath = fields.string("cardPath");
}

void to_json(json& j, const HistoryGeneration& value) {
    j = {{"seq", value.seq},
         {"kind", value.kind},
         {"files", value.files},
         {"bytes", value.bytes},
         {"verified", value.verified}};
    Json::put(j, "finished", value.finished);
}

void from_json(const json& j, HistoryGeneration& value) {
    const JsonFields fields(j);
    value.seq = fields.integer("seq");
    value.kind = fields.string("kind", "copy");
    value.finished = fields.timestamp("finished");
    value.files = fields.integerOr("files", 0);
    value.bytes = fields.integerOr("bytes", 0);
    value.verified = fields.boolean("verified", false);
}

void to_json(json& j, const HistoryVerification& value) {
    j = {{"cardPath", value.cardPath}};
    Json::put(j, "volumeSerial", value.volumeSerial);
    Json::put(j, "clean", value.clean);
    Json::put(j, "failed", value.failed);
    if (value.failed)
        j["found"] = value.found;
}

void from_json(const json& j, HistoryVerification& value) {
    const JsonFields fields(j);
    value.cardPath = fields.string("cardPath");
    value.volumeSerial = fields.optionalString("volumeSerial");
    value.clean = fields.optionalTimestamp("clean");
    value.failed = fields.optionalTimestamp("failed");
    value.found = fields.string("found", "");
}

void to_json(json& j, const HistoryEntry& value) {
    j = {{"id", value.id},
         {"source", value.source},
         {"cardName", value.cardName},
         {"date", value.date},
         {"success", value.success},
         {"verified", value.verified},
         {"hashAlgorithms", value.hashAlgorithms},
         {"files", value.files},
         {"bytes", value.bytes},
         {"fingerprint", value.fingerprint},
         {"shape", value.shape},
         {"destinations", value.destinations},
         {"generations", value.generations},
         {"reels", value.reels},
         {"unfinished", value.unfinished}};
    if (value.card)
        j["card"] = *value.card;
    Json::put(j, "project", value.project);
    Json::put(j, "finished", value.finished);
    Json::put(j, "failedFiles", value.failedFiles);
    Json::put(j, "fileList", value.fileList);
    Json::put(j, "safeToEject", value.safeToEject);
    Json::put(j, "safeToFormat", value.safeToFormat);
    if (!value.verifications.empty())
        j["verifications"] = value.verifications;
    if (!value.otherKeys.empty())
        j.update(Json::parse(value.otherKeys));
}

void from_json(const json& j, HistoryEntry& value) {
    const JsonFields fields(j);
    value.id = fields.string("id");
    const json* card = fields.find("card");
    value.card = card ? std::optional(card->get<HistoryCard>()) : std::nullopt;
    value.source = fields.string("source");
    value.cardName = fields.string("cardName");
    value.date = fields.string("date");
    value.project = fields.optionalString("project");
    value.finished = fields.timestamp("finished");
    value.success = fields.boolean("success");
    value.verified = fields.boolean("verified");
    value.failedFiles = fields.optionalInteger("failedFiles");
    value.hashAlgorithms = fields.optionalStrings("hashAlgorithms").value_or(std::vector<std::string>{"xxh64"});
    value.files = fields.integer("files");
    value.bytes = fields.integer("bytes");
    value.fingerprint = fields.string("fingerprint");
    value.shape = fields.string("shape");
    value.fileList = fields.optionalString("fileList");
    value.destinations = list<HistoryDestination>(fields, "destinations");
    value.generations = list<HistoryGeneration>(fields, "generations");
    value.reels = fields.optionalStrings("reels").value_or(std::vector<std::string>{});
    value.unfinished = fields.boolean("unfinished", false);
    value.safeToEject = fields.optionalBoolean("safeToEject");
    value.safeToFormat = fields.optionalBoolean("safeToFormat");
    value.verifications = list<HistoryVerification>(fields, "verifications");
    value.otherKeys = otherKeys(j);
}

} // namespace velmora
