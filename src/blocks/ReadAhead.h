#pragma once

#include "base/SerialQueue.h"
#include "platform/File.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <semaphore>
#include <span>

namespace velmora {

// Reads a file from beginning to end while the caller works on what was read before: a thread of its own fills one half
// of the memory, the caller has the other. One object serves any number of files, one after another. Not thread-safe.
class ReadAhead {
public:
    // `memory` is page-aligned, a multiple of 4096 long, and outlives this object.
    explicit ReadAhead(std::span<std::byte> memory);
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // The next bytes of the file, on the calling thread. What it throws ends the reading and comes out of `read`.
    using Take = std::function<void(std::span<const std::byte> bytes)>;
    // Reads to the true end of the file; `size` is the length that is expected. Returns the bytes read. Throws IOError.
    std::int64_t read(UncachedReader& file, std::int64_t size, const Take& take);

private:
    class Reading;
    // One half of the memory and the read that fills it.
    struct Half {
        std::span<std::byte> memory;
        std::span<std::byte> wanted;
        std::int64_t offset = 0;
        std::size_t got = 0;
        std::exception_ptr error;
        std::binary_semaphore done{0};
    };

    const bool halved_; // false: one page is all there is, and nothing is read ahead
    std::array<Half, 2> halves_;
    std::optional<SerialQueue> reader_; // made for the first file that is read in more than one piece
};

} // namespace velmora
