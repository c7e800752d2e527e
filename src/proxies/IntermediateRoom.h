#pragma once

#include "base/Errors.h"

#include <cstdint>
#include <string>

namespace velmora {

// The room on the disk for intermediates of clips that are decoded at the same time. Each says how much it will write,
// and nobody counts on what another one still needs. Any thread.
namespace IntermediateRoom {

// Sets so many bytes aside for the folder's files, until the folder is gone. Where they are there only when clips that
// run now have ended, it waits for that. False when there is nothing to wait for, or it was told to stop.
bool claim(const std::string& folder, std::int64_t bytes, const IsCancelled& isCancelled);
// So much of what was claimed has yet to be written.
void stillNeeds(const std::string& folder, std::int64_t bytes);

} // namespace IntermediateRoom

} // namespace velmora
