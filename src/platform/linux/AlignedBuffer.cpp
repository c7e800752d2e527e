#include "platform/File.h"

#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace velmora {

namespace {

constexpr std::size_t hugePage = std::size_t{2} << 20;

std::size_t roundUp(std::size_t n, std::size_t unit) {
    if (n > SIZE_MAX - unit)
        throw std::bad_alloc();
    return (n + unit - 1) / unit * unit;
}

std::size_t mappedBytes(std::size_t bytes) {
    static const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return roundUp(bytes, page);
}

std::byte* map(std::size_t bytes) {
    void* memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return static_cast<std::byte*>(memory);
}

} // namespace

// A large buffer starts on a huge-page boundary, or the kernel could back only its middle with huge pages. They make
// a 16 MiB block cost 8 translations instead of 4,096, for the hashers as well as for the pinning of O_DIRECT.
AlignedBuffer::AlignedBuffer(std::size_t bytes) : size_(bytes) {
    if (bytes == 0)
        return;
    const std::size_t length = mappedBytes(bytes);
    if (length < hugePage) {
        data_ = map(length);
        return;
    }
    std::byte* raw = map(length + hugePage);
    const std::size_t head = (hugePage - reinterpret_cast<std::uintptr_t>(raw) % hugePage) % hugePage;
    if (head > 0)
        ::munmap(raw, head);
    if (hugePage > head)
        ::munmap(raw + head + length, hugePage - head);
    data_ = raw + head;
    ::madvise(data_, length, MADV_HUGEPAGE); // a hint; kernels built without it say no
}

AlignedBuffer::~AlignedBuffer() {
    if (data_ != nullptr)
        ::munmap(data_, mappedBytes(size_));
}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
}

} // namespace velmora
