#pragma once

#include "base/Timestamp.h"
#include "records/CardKey.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

struct OffloadReport;

// The medium of a backed-up card.
struct HistoryCard {
    std::optional<std::string> identity;
    std::string fsSerial;
    std::int64_t capacity = 0;
    std::optional<std::string> label;
    std::optional<std::string> filesystem;

    CardKey key() const { return {fsSerial, capacity}; }
    bool operator==(const HistoryCard&) const = default;
};

struct HistoryDestination {
    std::string root;
    std::string cardPath;
    bool operator==(const HistoryDestination&) const = default;
};

struct HistoryGeneration {
    std::int64_t seq = 1;
    std::string kind = "copy"; // or "append", "repair"
    Timestamp finished;
    std::int64_t files = 0;
    std::int64_t bytes = 0;
    bool verified = false;

    static HistoryGeneration of(const OffloadReport& report, std::int64_t seq);
    bool operator==(const HistoryGeneration&) const = default;
};

// What verifications found in one card folder of a backup.
struct HistoryVerification {
    std::string cardPath;
    std::optional<std::string> volumeSerial; // of the disk that was read
    std::optional<Timestamp> clean;          // when every copy in it was last read and found as recorded
    std::optional<Timestamp> failed;         // when copies were found that are not, and nothing has mended them since
    std::string found;                       // what they were; empty without `failed`
    bool operator==(const HistoryVerification&) const = default;
};

// A card that was backed up, as the computer remembers it.
struct HistoryEntry {
    std::string id;
    std::optional<HistoryCard> card; // none for a folder source
    std::string source;
    std::string cardName;
    std::string date;
    std::optional<std::string> project;
    Timestamp finished;
    bool success = false;  // no failed file
    bool verified = false; // as a whole
    std::optional<std::int64_t> failedFiles;
    std::vector<std::string> hashAlgorithms{"xxh64"};
    std::int64_t files = 0; // of the whole backup
    std::int64_t bytes = 0;
    std::string fingerprint;
    std::string shape;
    std::optional<std::string> fileList; // "history/{id}.files.gz", relative to the history folder
    std::vector<HistoryDestination> destinations;
    std::vector<HistoryGeneration> generations;
    std::vector<std::string> reels;
    bool unfinished = false;          // recorded at the start of the job, which has not finished
    std::optional<bool> safeToEject;  // what the last run that ended promised of the card as it then was;
    std::optional<bool> safeToFormat; // none where no run has ended, or an older program did not record it
    std::vector<HistoryVerification> verifications;
    std::string otherKeys; // a JSON object: what another version of this program wrote and this one does not know
    bool operator==(const HistoryEntry&) const = default;
};

void to_json(nlohmann::json& j, const HistoryCard& value);
void from_json(const nlohmann::json& j, HistoryCard& value);
void to_json(nlohmann::json& j, const HistoryDestination& value);
void from_json(const nlohmann::json& j, HistoryDestination& value);
void to_json(nlohmann::json& j, const HistoryGeneration& value);
void from_json(const nlohmann::json& j, HistoryGeneration& value);
void to_json(nlohmann::json& j, const HistoryVerification& value);
void from_json(const nlohmann::json& j, HistoryVerification& value);
void to_json(nlohmann::json& j, const HistoryEntry& value);
void from_json(const nlohmann::json& j, HistoryEntry& value);

} // namespace velmora
