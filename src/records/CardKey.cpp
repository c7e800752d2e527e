#include "records/CardKey.h"

#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

namespace velmora {

void to_json(nlohmann::json& j, const CardKey& value) {
    j = {{"fsSerial", value.fsSerial}, {"capacity", value.capacity}};
}

void from_json(const nlohmann::json& j, CardKey& value) {
    const JsonFields fields(j);
    value.fsSerial = fields.string("fsSerial");
    value.capacity = fields.integer("capacity");
}

} // namespace velmora
