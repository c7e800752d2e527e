#include "memory/Remembered.h"

#include "base/RelativePath.h"
#include "disks/VolumeSerial.h"
#include "memory/HistoryRecords.h"
#include "memory/SameFolder.h"

#include <algorithm>
#include <fmt/format.h>
#include <tuple>

namespace velmora {

std::string HistoryGap::text() const {
    return error.empty() ? fmt::format("the card history was damaged and set aside as {}", path)
                         : fmt::format("the card history {} cannot be read ({})", path, error);
}

std::optional<HistoryVerification> Remembered::verificationOf(const std::string& cardPath,
                                                              const std::optional<std::string>& volumeSerial) const {
    std::optional<HistoryVerification> failed;
    std::optional<HistoryVerification> good;
    const auto hear = [&](const std::vector<HistoryVerification>& records) {
        for (const HistoryVerification& each : records) {
            if (!Verifications::isOf(each, cardPath, volumeSerial))
                continue;
            // A failure stands until a later reading; an earlier one does not end it, whatever the clock said then.
            auto& known = each.failed ? failed : good;
            if (!known || std::tie(each.failed, each.clean) > std::tie(known->failed, known->clean))
                known = each;
        }
    };
    hear(verifications);
    for (const HistoryEntry& entry : entries)
        hear(entry.verifications);
    if (!failed || (good && good->clean > failed->failed))
        return good;
    if (good)
        failed->clean = std::max(failed->clean, good->clean);
    return failed;
}

const HistoryGap* Remembered::hides(const std::optional<Timestamp>& lastRead) const& {
    const auto youngest = std::ranges::max_element(gaps, {}, &HistoryGap::written);
    return youngest != gaps.end() && lastRead <= std::optional(youngest->written) ? &*youngest : nullptr;
}

namespace Verifications {

bool isOf(const HistoryVerification& record, const std::string& cardPath,
          const std::optional<std::string>& volumeSerial) {
    if (!record.volumeSerial || !volumeSerial)
        return HistoryRecords::samePlace(record.cardPath, cardPath);
    if (record.volumeSerial != volumeSerial || !HistoryRecords::sameName(record.cardPath, cardPath))
        return false;
    // A disk may hold two folders of that name. Where it is not mounted, nobody can say which of them is meant.
    return VolumeFacts::volumeSerialText(cardPath) != volumeSerial ||
           isSameFolder({record.cardPath, record.volumeSerial}, cardPath, volumeSerial);
}

void enter(std::vector<HistoryVerification>& records, const HistoryVerification& mark) {
    const auto present = std::ranges::find_if(
        records, [&](const HistoryVerification& each) { return isOf(each, mark.cardPath, mark.volumeSerial); });
    if (present == records.end()) {
        records.push_back(mark);
        return;
    }
    const auto clean = mark.clean ? mark.clean : present->clean;
    // A clean result that had to wait for the history ends no failure that was found in the meantime. But a failure
    // with a date in the future comes from a wrong clock. It ends here, because no later reading would ever end it.
    const bool waited = !mark.failed && present->failed > mark.clean && present->failed <= Timestamp::now();
    if (!waited)
        *present = mark;
    present->clean = clean;
}

void bound(std::vector<HistoryVerification>& records, std::size_t most) {
    if (records.size() <= most)
        return;
    std::ranges::stable_sort(records, [](const HistoryVerification& a, const HistoryVerification& b) {
        return std::tie(a.failed, a.clean) > std::tie(b.failed, b.clean);
    });
    records.resize(most);
}

} // namespace Verifications

} // namespace velmora
