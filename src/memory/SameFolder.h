#pragma once

#include "records/BackupPlace.h"

#include <optional>
#include <string>

namespace velmora {

// Whether the folder at `cardPath` is the very one that a record names: the same path, on a volume with the same
// serial; or the same disk mounted elsewhere, and the same path on it. Where the serials differ, or only one side has
// one, it is another folder, whatever stands in it: a clone of a backup proves nothing until its bytes were compared.
bool isSameFolder(const BackupPlace& recorded, const std::string& cardPath, const std::optional<std::string>& serial);

} // namespace velmora
