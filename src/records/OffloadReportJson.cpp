#include "base/JsonShape.h"
#include "base/StopIf.h"
#include "records/RecordLimits.h"
#include "records/RecordReaders.h"

namespace velmora {

using nlohmann::json;

namespace {

using namespace JsonShape;

// A time that an older program did not write: the time before it stands in.
struct TimeOr {
    const char* key;
    Timestamp OffloadReport::* member;
    Timestamp OffloadReport::* before;

    void readInto(OffloadReport& report, const JsonFields& fields) const {
        report.*member = fields.optionalTimestamp(key).value_or(report.*before);
    }
    void writeTo(json& object, const OffloadReport& report) const { write(object, key, report.*member); }
};

constexpr TimeOr timeOr(const char* key, Timestamp OffloadReport::* member, Timestamp OffloadReport::* before) {
    return {key, member, before};
}

// The proxy options are information for people: options that a newer version wrote in another form do not make a
// report unreadable.
struct ProxyOptions {
    static constexpr const char* key = "proxy";

    void readInto(OffloadReport& report, const JsonFields& fields) const try {
        if (const json* value = fields.find(key))
            report.proxy = value->get<ProxySettings>();
    } catch (const FormatError&) {
        report.proxy.reset();
    }
    void writeTo(json& object, const OffloadReport& report) const { write(object, key, report.proxy); }
};

constexpr std::tuple setAsideShape{
    required("destination", &SetAsideCopy::destination),
    required("path", &SetAsideCopy::path),
    required("movedTo", &SetAsideCopy::movedTo),
};

constexpr std::tuple destinationShape{
    required("root", &OffloadReport::Destination::root),
    required("cardPath", &OffloadReport::Destination::cardPath),
    field("filesystem", &OffloadReport::Destination::filesystem),
    field("filesOK", &OffloadReport::Destination::filesOK),
    field("filesFailed", &OffloadReport::Destination::filesFailed),
    field("unbuffered", &OffloadReport::Destination::unbuffered),
    field("verifyMethod", &OffloadReport::Destination::verifyMethod),
    field("verifyNote", &OffloadReport::Destination::verifyNote),
    field("volumeSerial", &OffloadReport::Destination::volumeSerial),
    field("flushed", &OffloadReport::Destination::flushed),
};

constexpr std::tuple fileShape{
    required("path", &OffloadReport::FileEntry::path),
    required("size", &OffloadReport::FileEntry::size, 0, RecordLimits::fileSize),
    required("modified", &OffloadReport::FileEntry::modified),
    field("xxh64", &OffloadReport::FileEntry::xxh64),
    field("xxh128", &OffloadReport::FileEntry::xxh128),
    field("md5", &OffloadReport::FileEntry::md5),
    field("sourceError", &OffloadReport::FileEntry::sourceError),
    field("destinations", &OffloadReport::FileEntry::destinations),
    field("errors", &OffloadReport::FileEntry::errors),
    field("rewritten", &OffloadReport::FileEntry::rewritten),
};

// All but the files.
constexpr std::tuple reportShape{
    field("tool", &OffloadReport::tool),
    field("version", &OffloadReport::version),
    field("hashAlgorithm", &OffloadReport::hashAlgorithm),
    field("hashAlgorithms", &OffloadReport::hashAlgorithms),
    field("generation", &OffloadReport::generation, 1, RecordLimits::generation),
    field("kind", &OffloadReport::kind),
    field("project", &OffloadReport::project),
    required("cardName", &OffloadReport::cardName),
    required("date", &OffloadReport::date),
    required("source", &OffloadReport::source),
    field("sourceFilesystem", &OffloadReport::sourceFilesystem),
    required("started", &OffloadReport::started),
    timeOr("copyFinished", &OffloadReport::copyFinished, &OffloadReport::started),
    timeOr("finished", &OffloadReport::finished, &OffloadReport::copyFinished),
    field("verified", &OffloadReport::verified),
    field("verifyPending", &OffloadReport::verifyPending),
    field("verifyIncomplete", &OffloadReport::verifyIncomplete),
    field("safeToFormatSeconds", &OffloadReport::safeToFormatSeconds),
    field("verifyNotes", &OffloadReport::verifyNotes),
    field("copyPausedSeconds", &OffloadReport::copyPausedSeconds),
    field("verifyPausedSeconds", &OffloadReport::verifyPausedSeconds),
    field("sourceMedium", &OffloadReport::sourceMedium),
    ifAny("elsewhere", &OffloadReport::elsewhere),
    field("setAside", &OffloadReport::setAside),
    required("totalFiles", &OffloadReport::totalFiles, 0, JsonFields::highest),
    required("totalBytes", &OffloadReport::totalBytes, 0, RecordLimits::bytesOfOneList),
    field("destinations", &OffloadReport::destinations),
    field("skipped", &OffloadReport::skipped),
    field("clips", &OffloadReport::clips),
    ProxyOptions{},
    field("proxyEncoder", &OffloadReport::proxyEncoder),
};

} // namespace

void to_json(json& j, const SetAsideCopy& value) { j = JsonShape::encoded(value, setAsideShape); }
void from_json(const json& j, SetAsideCopy& value) { value = JsonShape::decoded<SetAsideCopy>(j, setAsideShape); }

void to_json(json& j, const OffloadReport::Destination& value) { j = JsonShape::encoded(value, destinationShape); }
void from_json(const json& j, OffloadReport::Destination& value) {
    value = JsonShape::decoded<OffloadReport::Destination>(j, destinationShape);
}

void to_json(json& j, const OffloadReport::FileEntry& value) { j = JsonShape::encoded(value, fileShape); }
void from_json(const json& j, OffloadReport::FileEntry& value) {
    value = JsonShape::decoded<OffloadReport::FileEntry>(j, fileShape);
}

std::string OffloadReport::jsonData() const {
    return Json::prettyStreaming(JsonShape::encoded(*this, reportShape), "files", files.size(),
                                 [this](std::size_t i) { return json(files[i]); });
}

OffloadReport OffloadReport::fromJson(std::string_view text) { return readReport(text, {}); }

OffloadReport readReport(std::string_view text, const IsCancelled& isCancelled) {
    OffloadReport report;
    std::int64_t bytes = 0;
    JsonReader in(text);
    json rest = json::object(); // all but the files
    const auto file = [&] {
        if (report.files.size() % 256 == 0)
            stopIf(isCancelled);
        OffloadReport::FileEntry& entry = report.files.emplace_back();
        JsonShape::streamInto(entry, in, fileShape);
        bytes += entry.size;
        if (bytes > RecordLimits::bytesOfOneList)
            throw FormatError("the sizes in \"files\" are not within their bounds");
    };
    in.object([&](std::string_view key) {
        json& value = rest[std::string(key)];
        if (key != "files" || in.kind() != JsonReader::Kind::array) {
            value = in.value();
            return;
        }
        report.files.clear(); // of a key that stands twice the last one counts
        bytes = 0;
        value = json::array();
        in.array(file);
    });
    in.end();
    const JsonFields fields(rest);
    fields.array("files"); // a value that is no list is as wrong here as elsewhere
    JsonShape::readInto(report, fields, reportShape);
    return report;
}

} // namespace velmora
