#include "proxies/MovFile.h"

#include <array>
#include <cstdint>
#include <fmt/format.h>
#include <fstream>

namespace velmora::MovFile {

namespace {

std::uint64_t bigEndian(const char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = 0; i < count; ++i)
        value = value << 8U | static_cast<unsigned char>(bytes[i]);
    return value;
}

} // namespace

std::optional<std::string> problem(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file)
        return "it cannot be read";
    const auto size = static_cast<std::uint64_t>(file.tellg());
    bool index = false;
    bool media = false;
    for (std::uint64_t offset = 0; offset < size;) {
        // Four bytes of length, four of kind; a length of 1 stands for eight more bytes of it.
        std::array<char, 16> head{};
        file.seekg(static_cast<std::streamoff>(offset));
        if (!file.read(head.data(), 8))
            return "its last box is cut short";
        std::uint64_t length = bigEndian(head.data(), 4);
        if (length == 1) {
            if (!file.read(head.data() + 8, 8))
                return "its last box is cut short";
            length = bigEndian(head.data() + 8, 8);
        }
        const std::string kind(head.data() + 4, 4);
        if (length < 8 || length > size - offset)
            return fmt::format("its box \"{}\" is cut short", kind);
        index = index || kind == "moov";
        if (kind == "mdat" && !index)
            return "its index does not stand in front";
        media = media || kind == "mdat";
        offset += length;
    }
    if (!index || !media)
        return "it has no index or no media";
    return std::nullopt;
}

} // namespace velmora::MovFile
