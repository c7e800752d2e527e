#include "base/Product.h"

#include "base/Text.h"

namespace velmora::Product {

std::string toolName(std::string_view tool) { return std::string(equalIgnoringCase(tool, "offload") ? name : tool); }

} // namespace velmora::Product
