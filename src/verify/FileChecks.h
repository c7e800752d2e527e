#pragma once

#include "base/Errors.h"
#include "base/PauseGate.h"
#include "verify/VerifyResult.h"
#include "verify/VerifyTask.h"

#include <cstddef>
#include <functional>

namespace velmora {

using VerifyProgressHook = std::function<void(const VerifyProgress&)>;

namespace FileChecks {

// Reads the files of a task, one after another, past the page cache, and puts what is wrong with them into `result`.
// The next bytes are read while those before them are hashed; `memory` bytes are held for that. Returns false when it
// ended early: the user cancelled, or the folder vanished, which `isThere` tells. `pausing` waits between two files.
bool run(VerifyResult& result, const VerifyTask& task, std::size_t memory, const std::function<bool()>& isThere,
         const VerifyProgressHook& progress, const IsCancelled& isCancelled, PauseGate::Worker* pausing);

} // namespace FileChecks

} // namespace velmora
