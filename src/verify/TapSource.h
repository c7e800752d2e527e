#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace velmora {

// What a range server hands out. Any thread.
class TapSource {
public:
    virtual ~TapSource() = default;

    virtual std::int64_t length() const noexcept = 0;
    // Copies what stands at `offset`, up to the size of `to`; fewer bytes at the end of the file, 0 behind it. Throws
    // IOError, and Cancelled when the source is not to be read any more.
    virtual std::size_t read(std::int64_t offset, std::span<std::byte> to) = 0;
    // Bytes that came off the disk so far. Grows while a long read is under way.
    virtual std::int64_t fromDisk() const noexcept = 0;
};

} // namespace velmora
