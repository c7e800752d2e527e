#include "memory/Gzip.h"

#include <libdeflate.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

namespace velmora::Gzip {

namespace {

constexpr std::array<unsigned char, 10> header = {0x1F, 0x8B, 0x08, 0, 0, 0, 0, 0, 0, 0xFF};
constexpr std::size_t trailerBytes = 8;
// File lists compress well at 6 and no better worth the time above it.
constexpr int level = 6;
// DEFLATE cannot expand by more than this factor (258 bytes from two bits), so a longer claim is a lie.
constexpr std::size_t largestExpansion = 1032;

enum Flag : unsigned char { headerCrc = 2, extra = 4, fileName = 8, comment = 16 };

struct CompressorDelete {
    void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};
struct DecompressorDelete {
    void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

void appendLittleEndian(std::string& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
}

unsigned char byteAt(std::string_view data, std::size_t at) { return static_cast<unsigned char>(data[at]); }

std::uint32_t littleEndian(std::string_view data, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= std::uint32_t{byteAt(data, at + i)} << (8 * i);
    return value;
}

// Where the DEFLATE stream begins, or nothing when the optional header fields reach into the trailer.
std::optional<std::size_t> streamStart(std::string_view data) {
    const std::size_t end = data.size() - trailerBytes;
    const unsigned char flags = byteAt(data, 3);
    std::size_t at = header.size();
    if (flags & extra) {
        if (at + 2 > end)
            return std::nullopt;
        at += 2U + byteAt(data, at) + (std::size_t{byteAt(data, at + 1)} << 8);
    }
    for (Flag text : {fileName, comment}) {
        if (!(flags & text))
            continue;
        if (at >= end)
            return std::nullopt;
        const std::size_t zero = data.find('\0', at);
        if (zero == std::string_view::npos)
            return std::nullopt;
        at = zero + 1;
    }
    if (flags & headerCrc)
        at += 2;
    if (at >= end)
        return std::nullopt;
    return at;
}

} // namespace

std::uint32_t crc32(std::string_view data) { return libdeflate_crc32(0, data.data(), data.size()); }

std::string compress(std::string_view data) {
    std::string out(reinterpret_cast<const char*>(header.data()), header.size());
    if (data.empty()) {
        out += std::string_view("\x03\x00", 2);
    } else {
        std::unique_ptr<libdeflate_compressor, CompressorDelete> compressor(libdeflate_alloc_compressor(level));
        if (!compressor)
            throw std::bad_alloc();
        const std::size_t bound = libdeflate_deflate_compress_bound(compressor.get(), data.size());
        out.resize(header.size() + bound);
        const std::size_t got =
            libdeflate_deflate_compress(compressor.get(), data.data(), data.size(), out.data() + header.size(), bound);
        out.resize(header.size() + got);
    }
    appendLittleEndian(out, crc32(data));
    appendLittleEndian(out, static_cast<std::uint32_t>(data.size()));
    return out;
}

std::optional<std::string> decompress(std::string_view data, std::size_t limit) {
    if (data.size() < header.size() + trailerBytes || byteAt(data, 0) != header[0] || byteAt(data, 1) != header[1] ||
        byteAt(data, 2) != header[2])
        return std::nullopt;
    const std::optional<std::size_t> start = streamStart(data);
    if (!start)
        return std::nullopt;
    const std::string_view stream = data.substr(*start, data.size() - trailerBytes - *start);
    const std::uint32_t claimed = littleEndian(data, data.size() - 4);
    if (claimed > limit || claimed / largestExpansion > stream.size())
        return std::nullopt;
    std::unique_ptr<libdeflate_decompressor, DecompressorDelete> decompressor(libdeflate_alloc_decompressor());
    if (!decompressor)
        throw std::bad_alloc();
    std::string out(claimed, '\0');
    std::size_t got = 0;
    std::size_t used = 0;
    if (libdeflate_deflate_decompress_ex(decompressor.get(), stream.data(), stream.size(), out.data(), out.size(),
                                         &used, &got) != LIBDEFLATE_SUCCESS)
        return std::nullopt;
    if (got != claimed || used != stream.size() || crc32(out) != littleEndian(data, data.size() - 8))
        return std::nullopt;
    return out;
}

} // namespace velmora::Gzip
