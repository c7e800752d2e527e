#pragma once

#include "job/JobStatus.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

struct OffloadReport;

// How a job's card, or one promise on it, is to look.
enum class CardTone { waiting, active, ok, warning, error };
std::string_view name(CardTone tone) noexcept;

struct CardChip {
    std::string text;
    CardTone tone = CardTone::waiting;
    bool operator==(const CardChip&) const = default;
};

// The words on a job's card. Pure functions of the status, the same for every front end.
namespace JobWords {

CardTone tone(const JobStatus& status);
bool isError(const JobStatus& status);
bool isRunning(const JobStatus& status);

std::string_view phaseText(JobStatus::Phase phase) noexcept; // "Copying"
std::string statusText(const JobStatus& status);
// None while no pause is asked for.
std::optional<std::string> pauseText(const JobStatus& status);
std::string_view cancellingText(JobStatus::Phase phase) noexcept;

// The two promises, eject first. `contentConfirmed`: the user has looked at the defects of `contentWarnings` clips.
std::array<CardChip, 2> chips(const JobStatus& status, bool contentConfirmed, std::int64_t contentWarnings);
// One sentence on what may be done with the card; none while there is nothing to say yet.
std::optional<std::string_view> promiseText(const JobStatus& status) noexcept;

// The closing line of a job.
std::string summaryText(const OffloadReport& report);

std::string rateText(double bytesPerSecond); // "182 MB/s"
std::string etaText(double seconds);         // "3:05", from an hour on "1:02:03"

} // namespace JobWords

} // namespace velmora
