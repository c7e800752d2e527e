#include "records/BackupPlace.h"

#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

namespace velmora {

void to_json(nlohmann::json& j, const BackupPlace& value) {
    j = {{"cardPath", value.cardPath}};
    Json::put(j, "volumeSerial", value.volumeSerial);
}

void from_json(const nlohmann::json& j, BackupPlace& value) {
    const JsonFields fields(j);
    value.cardPath = fields.string("cardPath");
    value.volumeSerial = fields.optionalString("volumeSerial");
}

} // namespace velmora
