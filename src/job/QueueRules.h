#pragma once

#include "job/JobStatus.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The rules between jobs. Pure functions of what they are given.

namespace PausedQueue {

inline constexpr std::string_view waitingText = "Waiting for a paused job.";
inline constexpr std::string_view oneAtATimeText =
    "Waiting until the previous card is completely finished (one card at a time).";

struct Other {
    JobStatus::Phase phase;
    bool paused;
};

// Whether a waiting job must stay waiting: a pause stops the queue, not only the job that was paused.
bool blocked(JobStatus::Phase phase, const std::vector<Other>& others);

} // namespace PausedQueue

namespace QueueRules {

inline constexpr std::string_view inUseText =
    "another job is still copying from the card — eject it when that copy has finished";
inline constexpr std::string_view otherCardText = "the card in the reader is not the one that was copied";
inline constexpr std::string_view notConnectedText = "card is not connected";

struct Other {
    std::string source;
    JobStatus::Phase phase;
};

struct Mounted {
    std::string path;
    std::optional<std::string> identity;
};

// Whether one of the other jobs still needs the card at `path`: it has the same source, and its copy stage has not
// ended. A job that only waits counts: it would find the card gone.
bool cardInUse(const std::string& path, const std::vector<Other>& others);

// The path of the mounted volume that is the copied card, if it is mounted at all. A card can be mounted twice, and
// clones bear the same identity: then the place where it was scanned wins.
std::optional<std::string> cardInDrive(const std::optional<std::string>& copied, const std::string& scanned,
                                       const std::vector<Mounted>& volumes);

// Why the card in the reader must not be ejected for this job; none when it may. `copied` and `current` are identities.
std::optional<std::string> ejectProblem(const std::optional<std::string>& copied,
                                        const std::optional<std::string>& current, bool cardInUse);

// Speed measurements are refused while any job's copy stage runs: they would slow each other and measure nothing.
bool measureBlocked(const std::vector<JobStatus::Phase>& phases);

std::string reportPath(const std::string& cardPath, const std::string& cardName);
// The first of these reports that exists.
std::optional<std::string> firstReport(const std::vector<std::string>& cardPaths, const std::string& cardName);

} // namespace QueueRules

} // namespace velmora
