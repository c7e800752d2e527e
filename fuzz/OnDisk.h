#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace velmora::fuzz {

// A folder of this process, for readers that take a path. Settings and locks lie in it too. It goes with the process
// when that ends well; a crash leaves it for a look.
inline const std::string& folder() {
    static const struct Folder {
        std::string path = std::filesystem::temp_directory_path() / ("velmora-fuzz-" + std::to_string(::getpid()));
        Folder() {
            std::filesystem::create_directories(path);
            ::setenv("VELMORA_SETTINGS_DIR", path.c_str(), 1);
        }
        ~Folder() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    } folder;
    return folder.path;
}

// Writes the input to a file below the folder and returns its path.
inline std::string onDisk(const std::string& name, const std::uint8_t* data, std::size_t size) {
    const std::string path = folder() + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return path;
}

} // namespace velmora::fuzz
