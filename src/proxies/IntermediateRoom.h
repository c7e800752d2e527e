#pragma once

#include "base/Errors.h"

#include <cstdint>
#include <string>

namespace velmora {

// The room on the disk for intermediates of clips that are decoded at the same time. Each says how much it will write,
// and nobody counts on what another one still needs. Any thread.
namespace IntermediateRoom {

// Reserves so many bytes for the files of `folder`, until the folder is gone. If the room is there only after running
// clips have ended, it waits for them. False when no clip is left to wait for, or it was told to stop.
bool claim(const std::string& folder, std::int64_t bytes, const IsCancelled& isCancelled);
// Tells how many of the claimed bytes are still to be written.
void stillNeeds(const std::string& folder, std::int64_t bytes);

} // namespace IntermediateRoom

} // namespace velmora
