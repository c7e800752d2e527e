#pragma once

#include "base/Errors.h"
#include "memory/HistoryStore.h"
#include "records/HistoryEntry.h"
#include "verify/VerifyResult.h"

#include <optional>

namespace velmora {

// Leaves in the card history what a verification found, so that no later run promises what a disk was seen to have
// lost; also where no entry names the folder. A verification that broke off before it found anything leaves nothing.
namespace VerificationTrace {

// What the result leaves: when everything was found as recorded, or when and what was not. Nothing when it proves
// neither, when all that is wrong is what the record itself calls failed, or when the folder is a copy of the backup on
// a disk that does not belong to it.
std::optional<HistoryVerification> of(const VerifyResult& result);

// Keeps the mark, and enters it wherever the history names its folder. The answer is about the former.
HistoryWrite enter(HistoryStore& history, const HistoryVerification& mark, const Log& log);

// Never throws. Why what was found is not kept, when it is not.
std::optional<std::string> record(HistoryStore& history, const VerifyResult& result, const Log& log) noexcept;

} // namespace VerificationTrace

} // namespace velmora
