#include "base/Errors.h"
#include "platform/IO.h"
#include "platform/PageCache.h"
#include "platform/ThreadPriority.h"
#include "support/FaultDisk.h"
#include "support/LoopImage.h"

#include <fmt/format.h>
#include <sys/syscall.h>

namespace velmora {
namespace {

using test::LoopImage;
using test::TempFolder;
using test::FileTree::bytes;

constexpr std::size_t block = 1 << 20;
constexpr std::size_t sizes[] = {0, 1, 4095, 4096, 4097, block - 1, block, 3 * block + 1};

// What is on the disk where the test runs: a plain folder, or a file system of its own.
struct Place {
    std::unique_ptr<TempFolder> folder;
    std::unique_ptr<LoopImage> image;
    std::string path;
};

class UncachedFile : public testing::TestWithParam<std::optional<LoopImage::Kind>> {
protected:
    void SetUp() override {
        if (!GetParam()) {
            place_.folder = std::make_unique<TempFolder>();
            place_.path = place_.folder->path();
            return;
        }
        VELMORA_NEEDS(LoopImage::unavailable(*GetParam()));
        place_.image = std::make_unique<LoopImage>(*GetParam());
        place_.path = place_.image->path();
    }

    bool isFuse() const { return GetParam() == LoopImage::Kind::exfat; }

    Place place_;
};

void writeBlocks(UncachedWriter& writer, const std::string& content, std::size_t from = 0) {
    AlignedBuffer buffer = IO::allocateAligned(block);
    for (std::size_t at = from; at < content.size(); at += block) {
        const std::size_t n = std::min(block, content.size() - at);
        std::memset(buffer.data(), 0, block);
        std::memcpy(buffer.data(), content.data() + at, n);
        writer.writeAt(buffer.span().first(n), static_cast<std::int64_t>(at));
    }
}

std::string readBlocks(UncachedReader& reader, std::size_t step = block) {
    AlignedBuffer buffer = IO::allocateAligned(step);
    std::string content;
    while (const std::size_t n = reader.readAt(buffer.span(), static_cast<std::int64_t>(content.size()))) {
        content.append(reinterpret_cast<const char*>(buffer.data()), n);
        if (n < step) {
            for (std::size_t at = n; at < std::min(step, (n + 4095) / 4096 * 4096); ++at)
                EXPECT_EQ(buffer.data()[at], std::byte{0}) << "behind the end at " << at;
            break;
        }
    }
    return content;
}

TEST_P(UncachedFile, WritesAndReadsEveryLengthInBothModes) {
    for (const CacheMode wanted : {CacheMode::direct, CacheMode::dropBehind})
        for (const std::size_t size : sizes) {
            const std::string path = fmt::format("{}/f{}-{}", place_.path, size, static_cast<int>(wanted));
            const std::string content = bytes(size + 1, size);
            UncachedWriter writer(path, UncachedWriter::Open::createOrTruncate, wanted);
            EXPECT_EQ(writer.mode(), wanted);
            writer.preallocate(static_cast<std::int64_t>(size));
            EXPECT_EQ(writer.facts().size, 0);
            writeBlocks(writer, content);
            writer.setModified({1'700'000'000, 0});
            writer.pushToDisk(); // what is written late must not count as a change
            writer.close();

            // Neither way may leave a page behind, before any fsync. Behind a FUSE daemon the device keeps some.
            if (isFuse() && size > 0) {
                EXPECT_GT(PageCache::residentPages(path).value().first, 0) << path;
                EXPECT_TRUE(PageCache::evict(path));
            }
            EXPECT_EQ(PageCache::residentPages(path).value().first, 0) << path;

            UncachedReader reader(path);
            EXPECT_EQ(reader.mode(), CacheMode::direct);
            EXPECT_EQ(reader.facts().size, static_cast<std::int64_t>(size));
            EXPECT_EQ(reader.facts().modified, (Timestamp{1'700'000'000, 0}));
            EXPECT_TRUE(readBlocks(reader) == content) << path;
            EXPECT_TRUE(readBlocks(reader, 8192) == content) << path;
            EXPECT_TRUE(test::FileTree::read(path) == content) << path;
        }
}

TEST_P(UncachedFile, ContinuesAnExistingFileAtABlock) {
    const std::string path = place_.path + "/part";
    const std::string content = bytes(5, 2 * block + 77);
    {
        UncachedWriter writer(path, UncachedWriter::Open::createOrTruncate, CacheMode::direct);
        writeBlocks(writer, content.substr(0, block) + bytes(6, 4096)); // one block that holds, one that was begun
        writer.flush();
    }
    UncachedWriter writer(path, UncachedWriter::Open::existing, CacheMode::direct);
    writeBlocks(writer, content, block);
    writer.flush();
    writer.close();
    EXPECT_TRUE(test::FileTree::read(path) == content);
}

TEST(UncachedFileOnABadDisk, GetsPastReadsThatAreCutShortAndTellsOfFailures) {
    VELMORA_NEEDS(test::FaultDisk::unavailable());
    test::FaultDisk disk;
    const std::string path = disk.root() + "/file";
    const std::string content = bytes(3, block + 4097);
    {
        UncachedWriter writer(path, UncachedWriter::Open::createOrTruncate, CacheMode::direct);
        EXPECT_EQ(writer.mode(), CacheMode::direct);
        writeBlocks(writer, content);
        writer.flush();
        // FUSE itself makes an error of a direct write that is cut short; it must not pass for a whole one.
        disk.cutShort(4096, {.ops = "write"});
        EXPECT_THROW(writeBlocks(writer, content), IOError);
        disk.clear();
        writeBlocks(writer, content);
        writer.close();
    }
    for (const std::int64_t cut : {1, 4095, 4096, 5000}) {
        disk.cutShort(cut, {.ops = "read", .skip = 1, .times = 2});
        UncachedReader reader(path);
        EXPECT_TRUE(readBlocks(reader) == content) << cut;
        EXPECT_GE(disk.hits(), 2);
        disk.clear();
    }
    disk.fail(EIO, {.ops = "read", .skip = 2});
    UncachedReader reader(path);
    EXPECT_EQ(test::refusal<IOError>([&] { readBlocks(reader, 256 << 10); }), IOError("read", path, EIO).what())
        << "a failed read passed for the end of the file";
}

TEST(AlignedBuffer, IsAlignedZeroedAndMovable) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{4096}, std::size_t{5000}, std::size_t{16} << 20}) {
        AlignedBuffer buffer = IO::allocateAligned(size);
        const std::size_t alignment = size < (2 << 20) ? 4096 : 2 << 20;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % alignment, 0U);
        EXPECT_TRUE(std::ranges::all_of(buffer.span(), [](std::byte b) { return b == std::byte{0}; }));
        std::memset(buffer.data(), 1, size);
        AlignedBuffer other = std::move(buffer);
        EXPECT_EQ(other.size(), size);
        EXPECT_EQ(other.data()[size - 1], std::byte{1});
        EXPECT_EQ(buffer.data(), nullptr); // NOLINT(bugprone-use-after-move): it must be empty, not shared
    }
    EXPECT_THROW(IO::allocateAligned(SIZE_MAX - 10), std::bad_alloc);
}

TEST(ThreadPriority, LowersTheCallingThreadOnly) {
    const auto priority = [] { return ::syscall(SYS_ioprio_get, 1 /* who: process */, 0); };
    const long before = priority();
    std::thread([&] {
        EXPECT_TRUE(ThreadPriority::lowerDiskPriority());
        EXPECT_EQ(priority(), 2 << 13 | 7) << "best effort, lowest level";
    }).join();
    EXPECT_EQ(priority(), before);
}

INSTANTIATE_TEST_SUITE_P(On, UncachedFile,
                         testing::Values(std::nullopt, LoopImage::Kind::ext4, LoopImage::Kind::xfs,
                                         LoopImage::Kind::btrfs, LoopImage::Kind::exfat),
                         [](const auto& kind) { return kind.param ? LoopImage::name(*kind.param) : "folder"; });

} // namespace
} // namespace velmora
