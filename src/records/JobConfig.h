#pragma once

#include "records/ExternalTools.h"
#include "records/ProxySettings.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The inputs of one job. Also a JSON document: the optional fields may be missing there, all others must stand.
struct JobConfig {
    JobConfig() = default;
    JobConfig(std::string cardSource, std::vector<std::string> roots)
        : source(std::move(cardSource)), destRoots(std::move(roots)) {}

    std::string source;                  // root of the card
    std::vector<std::string> destRoots;  // in the user's order
    std::optional<std::string> cardName; // none: derived from the source
    std::optional<std::string> date;     // none: today
    bool verify = true;
    std::int64_t chunkMB = 16; // block size in MiB
    std::int64_t buffers = 16;
    bool allowSameDevice = false;
    bool analyzeClips = true;
    ProxySettings proxy;
    ExternalTools tools;
    bool recordHistory = true;
    std::optional<std::string> historyFolder; // another place for the history
    std::optional<std::string> project;
    std::optional<std::vector<std::string>> appendInto; // card folders of an earlier backup
    bool verifyInProxy = true;
    std::string verifyPrimary = "fastest";          // how the destination that the renderer reads is chosen
    std::optional<std::int64_t> primaryDestination; // or fixed, counted from 1
    bool dayReport = true;
    bool operator==(const JobConfig&) const = default;
};

void to_json(nlohmann::json& j, const JobConfig& value);
void from_json(const nlohmann::json& j, JobConfig& value); // throws FormatError

} // namespace velmora
