#include "base/JsonFields.h"
#include "records/OffloadReport.h"
#include "records/RecordLimits.h"

#include <nlohmann/json.hpp>

namespace velmora {

using nlohmann::json;

namespace {

template <class T>
std::vector<T> list(const JsonFields& fields, const char* key) {
    const json* values = fields.array(key);
    return values ? values->get<std::vector<T>>() : std::vector<T>{};
}

std::vector<std::optional<std::string>> optionalStrings(const JsonFields& fields, const char* key) {
    std::vector<std::optional<std::string>> result;
    const json* values = fields.array(key);
    if (!values)
        return result;
    for (const json& value : *values) {
        const auto* text = value.get_ptr<const std::string*>();
        if (!text && !value.is_null())
            fields.wrong(key, "a list of texts and nulls");
        result.push_back(text ? std::optional(*text) : std::nullopt);
    }
    return result;
}

std::optional<std::vector<bool>> optionalBooleans(const JsonFields& fields, const char* key) {
    const json* values = fields.array(key);
    if (!values)
        return std::nullopt;
    std::vector<bool> result;
    for (const json& value : *values) {
        if (!value.is_boolean())
            fields.wrong(key, "a list of true and false");
        result.push_back(value.get<bool>());
    }
    return result;
}

// The proxy options are information for people: options that a newer version wrote in another form do not make a
// report unreadable.
std::optional<ProxySettings> proxyOptions(const JsonFields& fields) {
    try {
        const json* value = fields.find("proxy");
        return value ? std::optional(value->get<ProxySettings>()) : std::nullopt;
    } catch (const FormatError&) {
        return std::nullopt;
    }
}

json withoutFiles(const OffloadReport& r) {
    json j = {{"tool", r.tool},
              {"version", r.version},
              {"hashAlgorithm", r.hashAlgorithm},
              {"cardName", r.cardName},
              {"date", r.date},
              {"source", r.source},
              {"sourceFilesystem", r.sourceFilesystem},
              {"verified", r.verified},
              {"totalFiles", r.totalFiles},
              {"totalBytes", r.totalBytes},
              {"destinations", r.destinations},
              {"skipped", r.skipped},
              {"clips", r.clips}};
    Json::put(j, "hashAlgorithms", r.hashAlgorithms);
    Json::put(j, "generation", r.generation);
    Json::put(j, "kind", r.kind);
    Json::put(j, "project", r.project);
    Json::put(j, "started", r.started);
    Json::put(j, "copyFinished", r.copyFinished);
    Json::put(j, "finished", r.finished);
    Json::put(j, "verifyPending", r.verifyPending);
    Json::put(j, "verifyIncomplete", r.verifyIncomplete);
    Json::put(j, "safeToFormatSeconds", r.safeToFormatSeconds);
    Json::put(j, "verifyNotes", r.verifyNotes);
    Json::put(j, "copyPausedSeconds", r.copyPausedSeconds);
    Json::put(j, "verifyPausedSeconds", r.verifyPausedSeconds);
    if (r.sourceMedium)
        j["sourceMedium"] = *r.sourceMedium;
    if (!r.elsewhere.empty())
        j["elsewhere"] = r.elsewhere;
    if (r.setAside)
        j["setAside"] = *r.setAside;
    if (r.proxy)
        j["proxy"] = *r.proxy;
    Json::put(j, "proxyEncoder", r.proxyEncoder);
    return j;
}

void readAllButFiles(const JsonFields& fields, OffloadReport& r) {
    r.tool = fields.string("tool", "offload");
    r.version = fields.string("version", "?");
    r.hashAlgorithm = fields.string("hashAlgorithm", "xxh64");
    r.hashAlgorithms = fields.optionalStrings("hashAlgorithms");
    r.generation = fields.optionalInteger("generation", 1, RecordLimits::generation);
    r.kind = fields.optionalString("kind");
    r.project = fields.optionalString("project");
    r.cardName = fields.string("cardName");
    r.date = fields.string("date");
    r.source = fields.string("source");
    r.sourceFilesystem = fields.string("sourceFilesystem", "?");
    r.started = fields.timestamp("started");
    r.copyFinished = fields.timestamp("copyFinished", r.started);
    r.finished = fields.timestamp("finished", r.copyFinished);
    r.verified = fields.boolean("verified", false);
    r.verifyPending = fields.optionalBoolean("verifyPending");
    r.verifyIncomplete = fields.optionalBoolean("verifyIncomplete");
    r.safeToFormatSeconds = fields.optionalNumber("safeToFormatSeconds");
    r.verifyNotes = fields.optionalStrings("verifyNotes");
    r.copyPausedSeconds = fields.optionalNumber("copyPausedSeconds");
    r.verifyPausedSeconds = fields.optionalNumber("verifyPausedSeconds");
    if (const json* medium = fields.find("sourceMedium"))
        r.sourceMedium = medium->get<CardKey>();
    r.elsewhere = list<BackupPlace>(fields, "elsewhere");
    if (fields.array("setAside"))
        r.setAside = list<SetAsideCopy>(fields, "setAside");
    r.totalFiles = fields.integer("totalFiles", 0);
    r.totalBytes = fields.integer("totalBytes", 0, RecordLimits::bytesOfOneList);
    r.destinations = list<OffloadReport::Destination>(fields, "destinations");
    r.skipped = fields.optionalStrings("skipped").value_or(std::vector<std::string>{});
    r.clips = list<ClipEntry>(fields, "clips");
    r.proxy = proxyOptions(fields);
    r.proxyEncoder = fields.optionalString("proxyEncoder");
}

} // namespace

void to_json(json& j, const SetAsideCopy& value) {
    j = {{"destination", value.destination}, {"path", value.path}, {"movedTo", value.movedTo}};
}

void from_json(const json& j, SetAsideCopy& value) {
    const JsonFields fields(j);
    value.destination = fields.integer("destination");
    value.path = fields.string("path");
    value.movedTo = fields.string("movedTo");
}

void to_json(json& j, const OffloadReport::Destination& value) {
    j = {{"root", value.root},
         {"cardPath", value.cardPath},
         {"filesystem", value.filesystem},
         {"filesOK", value.filesOK},
         {"filesFailed", value.filesFailed}};
    Json::put(j, "unbuffered", value.unbuffered);
    Json::put(j, "verifyMethod", value.verifyMethod);
    Json::put(j, "verifyNote", value.verifyNote);
    Json::put(j, "volumeSerial", value.volumeSerial);
    Json::put(j, "flushed", value.flushed);
}

void from_json(const json& j, OffloadReport::Destination& value) {
    const JsonFields fields(j);
    value.root = fields.string("root");
    value.cardPath = fields.string("cardPath");
    value.filesystem = fields.string("filesystem", "?");
    value.filesOK = fields.integerOr("filesOK", 0);
    value.filesFailed = fields.integerOr("filesFailed", 0);
    value.unbuffered = fields.optionalBoolean("unbuffered");
    value.verifyMethod = fields.optionalString("verifyMethod");
    value.verifyNote = fields.optionalString("verifyNote");
    value.volumeSerial = fields.optionalString("volumeSerial");
    value.flushed = fields.optionalBoolean("flushed");
}

void to_json(json& j, const OffloadReport::FileEntry& value) {
    j = {{"path", value.path}, {"size", value.size}, {"destinations", value.destinations}};
    Json::put(j, "modified", value.modified);
    Json::put(j, "xxh64", value.xxh64);
    Json::put(j, "xxh128", value.xxh128);
    Json::put(j, "md5", value.md5);
    Json::put(j, "sourceError", value.sourceError);
    json errors = json::array();
    for (const auto& error : value.errors)
        errors.push_back(error ? json(*error) : json());
    j["errors"] = std::move(errors);
    if (value.rewritten)
        j["rewritten"] = *value.rewritten;
}

void from_json(const json& j, OffloadReport::FileEntry& value) {
    const JsonFields fields(j);
    value.path = fields.string("path");
    value.size = fields.integer("size", 0, RecordLimits::fileSize);
    value.modified = fields.timestamp("modified");
    value.xxh64 = fields.optionalString("xxh64");
    value.xxh128 = fields.optionalString("xxh128");
    value.md5 = fields.optionalString("md5");
    value.sourceError = fields.optionalString("sourceError");
    value.destinations = fields.optionalStrings("destinations").value_or(std::vector<std::string>{});
    value.errors = optionalStrings(fields, "errors");
    value.rewritten = optionalBooleans(fields, "rewritten");
}

std::string OffloadReport::jsonData() const {
    return Json::prettyStreaming(withoutFiles(*this), "files", files.size(),
                                 [this](std::size_t i) { return json(files[i]); });
}

OffloadReport OffloadReport::fromJson(std::string_view text) {
    OffloadReport report;
    std::int64_t bytes = 0;
    const auto add = [&](json&& file) {
        report.files.push_back(file.get<FileEntry>());
        bytes += report.files.back().size;
        if (bytes > RecordLimits::bytesOfOneList)
            throw FormatError("the sizes in \"files\" are not within their bounds");
    };
    const json rest = Json::parseStreaming(text, "files", add, [&] {
        report.files.clear();
        bytes = 0;
    });
    const JsonFields fields(rest);
    fields.array("files"); // a value that is no list is as wrong here as elsewhere
    readAllButFiles(fields, report);
    return report;
}

} // namespace velmora
