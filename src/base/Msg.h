#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora {

// Sentences for the user that more than one folder needs. A sentence that only one folder says stands there.
namespace Msg {

std::string appendBusy(std::string_view path);
std::string noReadAccess(std::string_view source);
std::string reportNotWritten(std::string_view error);

inline constexpr std::string_view historyBusy =
    "The card history is busy right now — the record of this backup will be written as soon as possible (do not close "
    "the app yet).";
std::string historyLost(std::string_view why = "the history was busy for too long");

// A refusal of an append, in the words of a repair.
std::string forRepair(std::string_view text);
// The way out when one disk of a backup has fewer generations than the others.
std::string behindOthers(std::string_view cardPath);
std::string repairNotOnCard(std::string_view file);
std::string repairCardDiffers(std::string_view file, std::string_view now, std::string_view recorded);
std::string repairCardUnreadable(std::string_view file, std::string_view error);
inline constexpr std::string_view repairNeedsVerify =
    "A repair is always verified by reading back — it cannot run without verification.";
inline constexpr std::string_view repairOtherCard =
    "The card in the reader is not the one the backup was made from (another card, or none) — nothing was copied. "
    "Insert the original card and run Copy again.";

} // namespace Msg

// Sentences about verification that runs in the proxy render and about finishing what was interrupted.
namespace VIPMsg {

// Why a destination is verified by reading it.
inline constexpr std::string_view cacheBlind = "macOS cannot show what is in its cache — verified by reading back";
inline constexpr std::string_view classicSetting = "verification during proxies is off — verified by reading back";
inline constexpr std::string_view classicSecondary = "another destination — verified by reading in the background";
// Failures of a file.
inline constexpr std::string_view verifyDiskHung = "the disk stopped responding during verification";
inline constexpr std::string_view cardFolderGone =
    "the card folder on the destination disappeared (disk disconnected?)";

std::string resumeDiverged(std::string_view disk, std::int64_t generation);
// An append meets a repair that was interrupted after its report was written.
std::string repairOpen(std::string_view cardPath);
inline constexpr std::string_view repairUnfinished =
    "The backup was not finished (the app ended during the copy or the verification) — finish it first with \"Finish "
    "interrupted backup\" on the card (velmora append).";

} // namespace VIPMsg

} // namespace velmora
