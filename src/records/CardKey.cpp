#include "records/CardKey.h"

#include "base/JsonShape.h"

namespace velmora {

namespace {
constexpr std::tuple shape{JsonShape::required("fsSerial", &CardKey::fsSerial),
                           JsonShape::required("capacity", &CardKey::capacity)};
} // namespace

void to_json(nlohmann::json& j, const CardKey& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, CardKey& value) { value = JsonShape::decoded<CardKey>(j, shape); }

} // namespace velmora
