#pragma once

#include "records/AppSettings.h"

namespace velmora {

class Console;

// The user's settings for any command that goes by them. Whatever of the file cannot be read is said, the defaults
// stand in for it, and the file stays as it is.
AppSettings loadSettings(Console& console);

} // namespace velmora
