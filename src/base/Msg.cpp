#include "base/Msg.h"

#include "base/Text.h"

#include <fmt/format.h>

namespace velmora::Msg {

std::string appendBusy(std::string_view path) {
    return fmt::format("Another job is working with this backup right now — an append, a repair or a verify with "
                       "proxies ({}) — wait until it finishes.",
                       path);
}

std::string noReadAccess(std::string_view source) {
    return fmt::format("macOS does not let Velmora read {}. Allow it in System Settings › Privacy & Security › Files "
                       "and Folders › Velmora › Removable Volumes (every new build asks again), then add the card "
                       "again.",
                       source);
}

std::string reportNotWritten(std::string_view error) { return fmt::format("Could not write the report: {}", error); }

std::string historyLost(std::string_view why) {
    return fmt::format(
        "Could not write the record of this backup to the card history ({}) — the backup on the disks is "
        "fine, but the card will not be recognised the next time it is inserted.",
        why);
}

std::string forRepair(std::string_view text) {
    return replaceAll(replaceAll(text, "cannot append", "cannot repair"), "can append only", "can repair only");
}

std::string behindOthers(std::string_view cardPath) {
    return fmt::format("{} is behind the others: bring it in step first, by itself (velmora append with only --into "
                       "\"{}\").",
                       cardPath, cardPath);
}

std::string repairNotOnCard(std::string_view file) { return fmt::format("{}: no longer on the card", file); }

std::string repairCardDiffers(std::string_view file, std::string_view now, std::string_view recorded) {
    return fmt::format("{}: the card has different content than at the backup ({}, in the backup {})", file, now,
                       recorded);
}

std::string repairCardUnreadable(std::string_view file, std::string_view error) {
    return fmt::format("{}: cannot read it on the card ({})", file, error);
}

} // namespace velmora::Msg

namespace velmora::VIPMsg {

std::string resumeDiverged(std::string_view disk, std::int64_t generation) {
    return fmt::format("{}: the unfinished backup (generation {}) does not match the other destinations — check it by "
                       "hand.",
                       disk, generation);
}

std::string repairOpen(std::string_view cardPath) {
    return fmt::format("A repair of {} was not finished — run it again first (velmora repair).", cardPath);
}

} // namespace velmora::VIPMsg
