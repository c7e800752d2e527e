#pragma once

#include "base/Timestamp.h"
#include "engine/CardFolders.h"
#include "engine/DestWriter.h"
#include "engine/SourceHasher.h"
#include "records/OffloadReport.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace velmora {

struct OffloadPlan;

// Puts what a run has found out into the record of its generation.
namespace ReportBuilder {

struct Results {
    const OffloadPlan& plan;
    std::span<const CardFolders::Destination> destinations;
    std::span<const std::unique_ptr<DestWriter>> writers; // null where a destination took no part
    const SourceHasher& hasher;
    const std::map<std::size_t, std::string>& sourceErrors;
    std::size_t endedAt = 0; // no file from this one on was copied …
    std::string endReason;   // … and why
    Timestamp started;
    Timestamp copyFinished;
    double copyPaused = 0;
    double verifyPaused = 0;
    bool verified = false; // every file was read back
    bool pending = false;  // the copies will be read back later
    // Reads the card again: the hash of one block of one file, absent when it cannot be read.
    std::function<std::optional<std::uint64_t>(std::size_t file, std::int64_t block)> readCard = {};
};

OffloadReport build(const Results& results);
// How sentences call the disk of a card folder: the volume's name, or the folder where it has none.
std::string diskName(const std::string& cardPath);

} // namespace ReportBuilder

} // namespace velmora
