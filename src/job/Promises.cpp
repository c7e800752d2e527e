#include "job/Promises.h"

#include "base/Text.h"

#include <algorithm>
#include <fmt/format.h>

namespace velmora::Promises {

namespace {

// What a denial takes away.
enum Denied : unsigned { eject = 1, format = 2, verified = 4, card = eject | format, everything = 7 };

class Judgement {
public:
    void deny(bool applies, unsigned what, std::string reason = {}) {
        if (!applies)
            return;
        denied_ |= what;
        if (!reason.empty() && std::ranges::find(reasons_, reason) == reasons_.end())
            reasons_.push_back(std::move(reason));
    }
    void denyEach(const std::vector<std::string>& reasons, unsigned what) {
        for (const std::string& reason : reasons)
            deny(true, what, reason);
    }
    Verdict verdict() && {
        return {(denied_ & eject) == 0, (denied_ & card) == 0, (denied_ & verified) == 0, std::move(reasons_)};
    }

private:
    unsigned denied_ = 0;
    std::vector<std::string> reasons_;
};

constexpr std::string_view sameVolume =
    "Every copy is on the card's own volume — that is no backup. Copy the card to another disk before you eject or "
    "format it.";

std::string lostText(const std::vector<std::string>& lost) {
    const auto n = static_cast<std::int64_t>(lost.size());
    return fmt::format("{} failed in the backup and {} on the card any more: {}{} — do not format the card; rescue {} "
                       "from the card with other means, or make a full copy of what it holds.",
                       countedFiles(n), plural(n, "is not", "are not"), escapeForDisplay(lost.front()),
                       n > 1 ? fmt::format(" and {} more", n - 1) : "", plural(n, "it", "them"));
}

std::string notComparedText(const Evidence& evidence) {
    return fmt::format(
        "{} of the card {} neither copied nor compared in this run, and nothing tells this card from another one with "
        "the same names, sizes and times — do not format it. To compare: {}",
        countedFiles(evidence.notCompared), plural(evidence.notCompared, "was", "were"), evidence.compareCommand);
}

// Denies for files that the card holds beyond the backup, or that differ from it.
void judgeCard(std::int64_t added, const std::vector<std::string>& changed, Judgement& judgement) {
    judgement.deny(!changed.empty(), card, changed.empty() ? "" : BackupMessage::changed(changed));
    judgement.deny(added > 0, card, added > 0 ? BackupMessage::notInBackup(added) : "");
}

void judgeWhole(const BackupCheck& whole, bool pending, Judgement& judgement) {
    if (whole.error) {
        judgement.deny(true, everything, BackupMessage::unreadable(*whole.error));
        return;
    }
    const auto& [failed, unverified] = whole.state;
    judgement.deny(failed > 0, everything, failed > 0 ? BackupMessage::failed(failed) : "");
    judgement.deny(!whole.lost.empty(), everything, whole.lost.empty() ? "" : lostText(whole.lost));
    judgeCard(whole.notInBackup, whole.changed, judgement);
    judgement.deny(unverified > 0, format | verified,
                   unverified > 0 && !pending ? BackupMessage::unverified(unverified) : "");
    judgement.denyEach(whole.elsewhere, format | verified);
    // The sentences above tell of every failed file. If none of them was said, this one must be.
    const bool said = failed > 0 || !whole.lost.empty() || whole.notInBackup > 0;
    judgement.deny(whole.failedFiles > 0, everything,
                   whole.failedFiles > 0 && !said ? BackupMessage::failed(whole.failedFiles) : "");
}

} // namespace

Verdict judge(const Evidence& evidence) {
    Judgement judgement;
    judgement.deny(!evidence.ran, everything);
    judgement.denyEach(evidence.problems, everything);
    judgement.deny(evidence.failedFiles > 0, everything);
    judgement.deny(evidence.cardSwapped, card);
    judgement.deny(!evidence.readBack || evidence.pending, format | verified);
    judgement.denyEach(evidence.failedVerifications, everything);
    if (evidence.cardError)
        judgement.deny(true, card, BackupMessage::unreadable(*evidence.cardError));
    judgement.deny(!evidence.cardSeen, format);
    if (evidence.whole)
        judgeWhole(*evidence.whole, evidence.pending, judgement);
    else
        judgeCard(evidence.filesAdded, evidence.changed, judgement);
    judgement.deny(evidence.forgotten.has_value(), format, evidence.forgotten.value_or(""));
    judgement.deny(evidence.notCompared > 0, card, evidence.notCompared > 0 ? notComparedText(evidence) : "");
    judgement.deny(!evidence.onOtherVolume, everything, std::string(sameVolume));
    return std::move(judgement).verdict();
}

} // namespace velmora::Promises
