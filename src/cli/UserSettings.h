#pragma once

#include "records/AppSettings.h"
#include "settings/SettingsStore.h"

namespace velmora {

class Console;

// The user's settings for any command that goes by them. Whatever of the file cannot be read is said, the defaults
// stand in for it, and the file stays as it is.
AppSettings loadSettings(Console& console);

// The ids of the built-in LUTs; none where the catalogue is missing, so that a broken installation loses no setting.
LutIds knownLuts();

} // namespace velmora
