#include "proxies/MovFile.h"

#include "base/Errors.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <fmt/format.h>
#include <fstream>
#include <functional>

namespace velmora::MovFile {

namespace {

// The kind of a box that belongs to one program, and the mark of this one.
constexpr std::string_view ownedKind = "uuid";
constexpr std::string_view ownMark = "velmora content ";
static_assert(ownMark.size() == 16);
constexpr std::size_t headSize = 8; // four bytes of length, four of kind
constexpr std::size_t most = std::size_t{1} << 20;

std::uint64_t bigEndian(const char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = 0; i < count; ++i)
        value = value << 8U | static_cast<unsigned char>(bytes[i]);
    return value;
}

// Tells of each box its kind and its length, the file standing behind its head. Why it went no farther; none at the
// end.
std::optional<std::string> eachBox(const std::string& path,
                                   const std::function<void(std::ifstream&, const std::string&, std::uint64_t)>& take) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file)
        return "it cannot be read";
    const auto size = static_cast<std::uint64_t>(file.tellg());
    for (std::uint64_t offset = 0; offset < size;) {
        // A length of 1 stands for eight more bytes of it.
        std::array<char, 2 * headSize> head{};
        file.seekg(static_cast<std::streamoff>(offset));
        if (!file.read(head.data(), headSize))
            return "its last box is cut short";
        std::uint64_t length = bigEndian(head.data(), 4);
        if (length == 1) {
            if (!file.read(head.data() + headSize, headSize))
                return "its last box is cut short";
            length = bigEndian(head.data() + headSize, 8);
        }
        const std::string kind(head.data() + 4, 4);
        if (length < headSize || length > size - offset)
            return fmt::format("its box \"{}\" is cut short", kind);
        take(file, kind, length);
        offset += length;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> problem(const std::string& path) {
    bool index = false;
    bool media = false;
    bool mediaFirst = false;
    const auto cut = eachBox(path, [&](std::ifstream&, const std::string& kind, std::uint64_t) {
        index = index || kind == "moov";
        media = media || kind == "mdat";
        mediaFirst = mediaFirst || (media && !index);
    });
    if (cut)
        return cut;
    if (!index || !media)
        return "it has no index or no media";
    return mediaFirst ? std::optional<std::string>("its index does not stand in front") : std::nullopt;
}

void append(const std::string& path, std::string_view words) {
    std::string box = fmt::format("    {}{}{}", ownedKind, ownMark, words);
    for (std::size_t i = 0; i < 4; ++i)
        box[i] = static_cast<char>(box.size() >> (24 - 8 * i));
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out | std::ios::ate); // never a new file
    file.write(box.data(), static_cast<std::streamsize>(box.size()));
    file.close();
    if (!file)
        throw IOError("write", path, errno);
}

std::optional<std::string> appended(const std::string& path) {
    std::optional<std::string> words;
    eachBox(path, [&](std::ifstream& file, const std::string& kind, std::uint64_t length) {
        if (kind != ownedKind || length < headSize + ownMark.size() || length > most)
            return;
        std::string content(length - headSize, '\0');
        if (file.read(content.data(), static_cast<std::streamsize>(content.size())) && content.starts_with(ownMark))
            words = content.substr(ownMark.size());
    });
    return words;
}

} // namespace velmora::MovFile
