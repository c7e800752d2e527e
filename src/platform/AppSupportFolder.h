#pragma once

#include <string>
#include <vector>

namespace velmora {

// Where this computer keeps settings, history and locks. Read from the environment at each call; nothing is created.
namespace AppSupportFolder {

// VELMORA_SETTINGS_DIR, TARNWICK_SETTINGS_DIR or OFFLOAD_SETTINGS_DIR, the first that is set and not empty; otherwise
// "Velmora" in the user's data folder.
std::string path();

// `path()`, and after it the folders of the two earlier names in the user's data folder.
std::vector<std::string> searchFolders();

// $XDG_DATA_HOME when it is an absolute path, else ~/.local/share.
std::string dataHome();

} // namespace AppSupportFolder

} // namespace velmora
