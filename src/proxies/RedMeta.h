#pragma once

#include "records/ClipInfo.h"

#include <string_view>

namespace velmora {

// What REDline prints of a clip: lines of a label, ":" and a value.
namespace RedMeta {

// Tolerant: what is missing or no value of its kind stays empty. Throws ToolError when neither size nor length is said.
ClipInfo parse(std::string_view text);

} // namespace RedMeta

} // namespace velmora
