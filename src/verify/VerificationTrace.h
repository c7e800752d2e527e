#pragma once

#include "base/Errors.h"
#include "memory/HistoryStore.h"
#include "records/HistoryEntry.h"
#include "verify/VerifyResult.h"

#include <optional>

namespace velmora {

// Leaves in the card history what a verification found, so that no later run promises what a disk was seen to have
// lost. The history of another computer, and a folder that it does not know, get nothing; neither does a verification
// that broke off before it found anything.
namespace VerificationTrace {

// What the result leaves: when everything was found as recorded, or when and what was not. Nothing when it proves
// neither, when all that is wrong is what the record itself calls failed, or when the folder is a copy of the backup on
// a disk that does not belong to it.
std::optional<HistoryVerification> of(const VerifyResult& result);

// Enters the mark wherever the history names its folder. What cannot be written is a line in the log, and returned.
HistoryWrite enter(HistoryStore& history, const HistoryVerification& mark, const Log& log);

// Never throws: a history that cannot be written costs the trace and a line in the log.
void record(HistoryStore& history, const VerifyResult& result, const Log& log) noexcept;

} // namespace VerificationTrace

} // namespace velmora
