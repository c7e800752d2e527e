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
inline constexpr std::string_view historyLost =
    "Could not write the record of this backup to the card history (the history was busy for too long) — the backup on "
    "the disks is fine, but the card will not be recognised the next time it is inserted.";

} // namespace Msg

// Sentences about verification that runs in the proxy render and about finishing what was interrupted.
namespace VIPMsg {

inline constexpr std::string_view cacheBlind = "macOS cannot show what is in its cache — verified by reading back";

} // namespace VIPMsg

} // namespace velmora
