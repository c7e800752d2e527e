#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// gzip frames (RFC 1952) around raw DEFLATE (RFC 1951). What `compress` writes, every gzip reads; what gzip wrote,
// `decompress` reads. Pure functions, any thread.
namespace Gzip {

// Ten header bytes 1F 8B 08 00 00 00 00 00 00 FF, the DEFLATE stream, CRC-32 and length modulo 2^32, little-endian.
// Throws std::bad_alloc when memory runs out.
std::string compress(std::string_view data);

// Nothing for anything that is not one whole, undamaged gzip member, and for contents longer than `limit` bytes: the
// length in the frame is never trusted with an allocation beyond it.
std::optional<std::string> decompress(std::string_view data, std::size_t limit);

// The CRC of gzip; 0 for empty input.
std::uint32_t crc32(std::string_view data);

} // namespace Gzip

} // namespace velmora
