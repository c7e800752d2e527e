#include "platform/OwnProgram.h"

#include <filesystem>

namespace velmora {

std::string ownProgram() {
    std::error_code unknown;
    return std::filesystem::read_symlink("/proc/self/exe", unknown).string();
}

} // namespace velmora
