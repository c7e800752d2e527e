#pragma once

#include "records/ClipInfo.h"

#include <string_view>

namespace velmora {

// The metadata that art-cmd exports of a clip, as JSON. Its objects lie at depths that differ from version to version,
// so each value is looked for by the names of its innermost keys, wherever they are.
namespace ArriMeta {

// Tolerant: what is missing or no value of its kind stays empty. Throws ToolError "unreadable metadata" for what is no
// JSON object.
ClipInfo parse(std::string_view json);

} // namespace ArriMeta

} // namespace velmora
