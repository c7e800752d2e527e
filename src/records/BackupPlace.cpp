#include "records/BackupPlace.h"

#include "base/JsonShape.h"

namespace velmora {

namespace {
constexpr std::tuple shape{JsonShape::required("cardPath", &BackupPlace::cardPath),
                           JsonShape::field("volumeSerial", &BackupPlace::volumeSerial)};
} // namespace

void to_json(nlohmann::json& j, const BackupPlace& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, BackupPlace& value) { value = JsonShape::decoded<BackupPlace>(j, shape); }

} // namespace velmora
