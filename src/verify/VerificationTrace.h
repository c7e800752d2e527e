#pragma once

#include "base/Errors.h"
#include "records/HistoryEntry.h"
#include "verify/VerifyResult.h"

#include <optional>

namespace velmora {

class HistoryStore;

// Leaves in the card history what a verification found, so that no later run promises what a disk was seen to have
// lost. The history of another computer, and a folder that it does not know, get nothing; neither does a verification
// that broke off before it found anything.
namespace VerificationTrace {

// What the result leaves: when everything was found as recorded, or when and what was not. Nothing when it proves
// neither, or when the folder is a copy of the backup on a disk that does not belong to it.
std::optional<HistoryVerification> of(const VerifyResult& result);

// Never throws: a history that cannot be written costs the trace and a line in the log.
void record(HistoryStore& history, const VerifyResult& result, const Log& log) noexcept;

} // namespace VerificationTrace

} // namespace velmora
