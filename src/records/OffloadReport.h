#pragma once

#include "base/Timestamp.h"
#include "records/BackupPlace.h"
#include "records/CardKey.h"
#include "records/ClipEntry.h"
#include "records/ProxySettings.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A defective copy that a repair moved away.
struct SetAsideCopy {
    std::int64_t destination = 0; // column
    std::string path;             // the file that was defective
    std::string movedTo;          // where it lies now
    bool operator==(const SetAsideCopy&) const = default;
};

void to_json(nlohmann::json& j, const SetAsideCopy& value);
void from_json(const nlohmann::json& j, SetAsideCopy& value);

// The record of one generation of one card's backup: what was read, what was written where, what was verified, what
// the clips are. Every other output is derived from it, and later runs read it back. The same record stands on every
// destination.
//
// As JSON (`_REPORT/offload_report.json`, `offload_report_NNNN.json`): one object, keys sorted, two blanks a level;
// times ISO 8601 in UTC to the second; absent optionals left out, but `errors` of a file keeps its nulls, so that the
// columns keep their places. Keys that are not known are passed over on reading.
struct OffloadReport {
    struct Destination {
        std::string root;     // as given
        std::string cardPath; // the card folder on it
        std::string filesystem = "?";
        std::int64_t filesOK = 0;
        std::int64_t filesFailed = 0;
        std::optional<bool> unbuffered; // writes went past the file cache
        std::optional<std::string> verifyMethod;
        std::optional<std::string> verifyNote;
        std::optional<std::string> volumeSerial;
        // false: no flush of the disk succeeded, so its copies may not be there for good
        std::optional<bool> flushed = {};
        bool operator==(const Destination&) const = default;
    };

    // `destinations`, `errors` and `rewritten` have one entry per column of the report's own `destinations`.
    struct FileEntry {
        std::string path;
        std::int64_t size = 0;
        Timestamp modified;
        std::optional<std::string> xxh64;
        std::optional<std::string> xxh128;
        std::optional<std::string> md5;
        std::optional<std::string> sourceError;
        std::vector<std::string> destinations; // "pending", "written", "verified", "failed"
        std::vector<std::optional<std::string>> errors;
        std::optional<std::vector<bool>> rewritten;

        // The digest of "xxh64", "xxh128" or "md5".
        const std::optional<std::string>& digest(std::string_view algorithm) const;
        bool operator==(const FileEntry&) const = default;
    };

    std::string tool = "offload";
    std::string version = "?";
    std::string hashAlgorithm = "xxh64"; // the first of hashAlgorithms, for older readers
    std::optional<std::vector<std::string>> hashAlgorithms;
    std::optional<std::int64_t> generation;
    std::optional<std::string> kind; // "copy", "append", "repair"
    std::optional<std::string> project;
    std::string cardName;
    std::string date; // "YYYY-MM-DD"
    std::string source;
    std::string sourceFilesystem = "?";
    std::optional<CardKey> sourceMedium; // the medium, where the source was a whole volume that tells what it is
    Timestamp started;
    Timestamp copyFinished;
    Timestamp finished;
    bool verified = false;
    std::optional<bool> verifyPending;    // verification runs later, with the proxies
    std::optional<bool> verifyIncomplete; // its result does not stand on every destination
    std::optional<double> safeToFormatSeconds;
    std::optional<std::vector<std::string>> verifyNotes;
    std::optional<double> copyPausedSeconds;
    std::optional<double> verifyPausedSeconds;
    std::optional<std::vector<SetAsideCopy>> setAside;
    std::int64_t totalFiles = 0;
    std::int64_t totalBytes = 0;
    std::vector<Destination> destinations;
    std::vector<BackupPlace> elsewhere; // further folders of this backup, which this run did not write
    std::vector<FileEntry> files;
    std::vector<std::string> skipped;
    std::vector<ClipEntry> clips;
    std::optional<ProxySettings> proxy;
    std::optional<std::string> proxyEncoder;

    // File names of a generation; the first has no number.
    static std::string jsonName(std::int64_t generation);
    static std::string textName(std::int64_t generation);
    static std::string htmlName(std::string_view card, std::int64_t generation);
    static std::string pdfName(std::string_view card, std::int64_t generation);

    std::vector<std::string> algorithms() const;
    std::int64_t generationNumber() const { return generation.value_or(1); }
    bool isRepair() const { return kind == "repair"; }

    // "verified" is good; without verification "written" is good as well.
    bool isGood(std::string_view status) const { return status == "verified" || (!verified && status == "written"); }
    // A source error, or a column that is not good. A file without any column is not failed.
    bool isFailed(const FileEntry& file) const;
    std::vector<const FileEntry*> failedFiles() const;
    bool hasFailedFiles() const;
    // The destination with this card path, as the run that made the report had it.
    std::optional<std::size_t> columnAt(std::string_view cardPath) const;
    // The destination has a volume serial that no other destination of this report has.
    bool onlyOnItsDisk(std::size_t destination) const;
    bool success() const { return !hasFailedFiles(); }
    // Sets filesOK and filesFailed of every destination from the files.
    void countFiles();

    std::vector<const ClipEntry*> contentWarnings() const;
    double copySeconds() const;
    double verifySeconds() const;
    double pausedSeconds() const;
    std::optional<std::string> frameRateSummary() const;

    std::string jsonData() const;
    // Throws FormatError when the text is no JSON or a required key is missing. Holds one file entry at a time besides
    // the result, so that a report of a hundred thousand files does not need its size many times over.
    static OffloadReport fromJson(std::string_view text);

    bool operator==(const OffloadReport&) const = default;
};

void to_json(nlohmann::json& j, const OffloadReport::Destination& value);
void from_json(const nlohmann::json& j, OffloadReport::Destination& value);
void to_json(nlohmann::json& j, const OffloadReport::FileEntry& value);
void from_json(const nlohmann::json& j, OffloadReport::FileEntry& value);

} // namespace velmora
