#pragma once

#include "base/Errors.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"
#include "records/SpaceNeed.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

struct OffloadOptions;

// Everything that happens before the first byte moves. Each check refuses with a stable code and one sentence, in a
// fixed order, and nothing has been created on any disk when one does.
namespace Preflight {

struct Inputs {
    std::string source;
    std::vector<std::string> destRoots;
    std::optional<std::string> cardName;    // none: derived from the source
    std::optional<std::string> date;        // none: today
    std::optional<SourceScan> listing = {}; // of this card, made a moment ago; none: it is listed here
};

// Bytes that the job will add to the card's own, told from the finished scan.
using ExtraOf = std::function<SpaceExtra(const SourceScan&)>;
// The capacity of the file system at a path (which need not exist yet); none when it cannot be told. Tests put
// their own here.
using FreeSpace = std::function<std::optional<IO::Capacity>(const std::string&)>;

struct Space {
    std::vector<std::string> warnings;
    std::vector<SpaceLine> lines;
};

struct Result {
    OffloadPlan plan;
    Space space;
};

// What `prepare` checks before it lists the card: cheap, and worth knowing before anything that takes time.
void checkInputs(const Inputs& inputs, const OffloadOptions& options);

// Refuses a copy whose folder would lie on the card or on a disk that is away: the date folder may be a link to there.
void checkCopyAt(const std::string& cardPath, const std::string& source);

Result prepare(const Inputs& inputs, const OffloadOptions& options, const ExtraOf& extra = {},
               const FreeSpace& freeSpace = {}, const IsCancelled& isCancelled = {});

// The checks for a run into card folders that exist already: its options and source, no folder named twice, each one
// writable, and no records behind a link. What the folders hold is for the planner to judge.
void checkInto(const std::string& source, const std::vector<std::string>& cardPaths, const OffloadOptions& options);

// The space that one run needs on each destination: the bytes that it writes there, without those that part files hold
// already, and what file systems and this program's records add.
std::vector<SpaceNeed> demands(const OffloadPlan& plan);

// Compares the demands with the free space below the card folders. Throws the first shortage as `noSpace`.
Space checkSpace(const std::vector<SpaceNeed>& demands, const std::vector<std::string>& cardPaths,
                 const SpaceExtra& extra, const FreeSpace& freeSpace = {});

} // namespace Preflight

} // namespace velmora
