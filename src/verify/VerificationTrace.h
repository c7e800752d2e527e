#pragma once

#include "base/Errors.h"
#include "memory/HistoryStore.h"
#include "records/HistoryEntry.h"
#include "verify/VerifyResult.h"

#include <optional>

namespace velmora {

// Records in the card history what a verification found, even where no entry names the folder. So no later run promises
// what a disk was seen to have lost. A verification that broke off before it found anything records nothing.
namespace VerificationTrace {

// What the result records: either when all was found as recorded, or when it was not and what was wrong. None when it
// proves neither, when all that is wrong is what the record itself calls failed, or when the folder is a copy of the
// backup on a disk that does not belong to it.
std::optional<HistoryVerification> of(const VerifyResult& result);

// Stores the mark, and also puts it into each entry that names its folder. Returns how storing the mark went.
HistoryWrite enter(HistoryStore& history, const HistoryVerification& mark, const Log& log);

// Returns why the finding could not be stored; none when it was, or there was none. Never throws.
std::optional<std::string> record(HistoryStore& history, const VerifyResult& result, const Log& log) noexcept;

} // namespace VerificationTrace

} // namespace velmora
