#include "verify/TapFile.h"

#include "blocks/BlockReads.h"
#include "platform/File.h"
#include "support/FaultDisk.h"
#include "verify/Tapped.h"

#include <random>

namespace velmora {
namespace {

using test::Tapped;

constexpr std::int64_t blockSize = 65536;

std::string readAt(TapFile& tap, std::int64_t offset, std::size_t length) {
    std::string bytes(length, '?');
    bytes.resize(tap.read(offset, std::as_writable_bytes(std::span(bytes))));
    return bytes;
}

bool eventually(const std::function<bool()>& holds) {
    for (int i = 0; i < 1000 && !holds(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return holds();
}

// How many descriptors this process has on files whose path ends so.
std::size_t descriptors(const std::string& end) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry, gone).string().ends_with(end) ? 1 : 0;
    }
    return count;
}

TEST(TapFile, VerifiesAFileInWhateverOrderItIsRead) {
    for (const std::int64_t block : {blockSize, std::int64_t{10000}})
        for (const std::size_t size : {0UL, 1UL, 65536UL, 3 * 65536UL - 1}) {
            const test::TempFolder card;
            const Tapped file(card.path(), size, block);
            const auto tap = file.open();
            EXPECT_EQ(tap->length(), size);
            EXPECT_EQ(readAt(*tap, static_cast<std::int64_t>(size), 10), "");
            std::int64_t end = static_cast<std::int64_t>(size);
            for (const std::size_t piece : {size / 3, size / 5 + 1, size})
                if (end > 0) {
                    const std::int64_t start = std::max<std::int64_t>(0, end - static_cast<std::int64_t>(piece));
                    EXPECT_EQ(readAt(*tap, start, piece), file.content.substr(static_cast<std::size_t>(start), piece));
                    end = start;
                }
            EXPECT_EQ(file.verifier->finish(), BlockOutcome::verified()) << size << " in " << block;
            if (block == blockSize) {
                EXPECT_EQ(tap->fromDisk(), size);
            }
        }
}

TEST(TapFile, ReadsABlockAgainOnlyWhenSixOthersCameAfterIt) {
    const test::TempFolder card;
    const Tapped file(card.path(), 10 * blockSize, blockSize);
    const auto tap = file.open();
    const auto block = [&](std::int64_t number) { return readAt(*tap, number * blockSize, blockSize); };
    const auto is = [&](std::int64_t number) {
        return file.content.substr(static_cast<std::size_t>(number * blockSize), blockSize);
    };
    for (int number = 0; number < 5; ++number)
        EXPECT_EQ(block(number), is(number));
    EXPECT_TRUE(eventually([&] { return tap->fromDisk() == 6 * blockSize; })) << "the sixth was not read ahead";

    test::FileTree::flipBit(file.path, 2 * blockSize + 7);
    for (int number = 0; number < 5; ++number)
        EXPECT_EQ(block(number), is(number));
    EXPECT_EQ(tap->fromDisk(), 6 * blockSize);
    EXPECT_TRUE(file.verifier->unstableBlocks().empty());

    for (int number = 9; number > 5; --number)
        EXPECT_EQ(block(number), is(number));
    EXPECT_NE(block(2), is(2));
    EXPECT_EQ(file.verifier->unstableBlocks(), std::vector<std::int64_t>{2});
    EXPECT_EQ(file.verifier->finish(), BlockOutcome::mismatch(2));
    EXPECT_TRUE(eventually([&] { return tap->fromDisk() == 12 * blockSize; })) << tap->fromDisk();

    EXPECT_EQ(block(0), is(0));
    EXPECT_TRUE(eventually([&] { return tap->fromDisk() == 14 * blockSize; })) << tap->fromDisk();
    EXPECT_EQ(block(9), is(9));
    EXPECT_EQ(tap->fromDisk(), 14 * blockSize) << "the end of the file is not kept";
}

TEST(TapFile, OpensNothingButAFileBelowTheCardFolderThatComesOffADisk) {
    const test::TempFolder card;
    const Tapped file(card.path(), 100, blockSize);
    std::filesystem::create_directory_symlink("DCIM", card / "LINK");
    std::filesystem::create_symlink("A.mov", card / "DCIM/B.mov");
    for (const auto& [relative, code] : std::vector<std::pair<std::string, int>>{
             {"DCIM/NO.mov", ENOENT}, {"LINK/A.mov", ELOOP}, {"DCIM/B.mov", ELOOP}, {"DCIM", EINVAL}, {"../x", EXDEV}})
        EXPECT_EQ(test::refusal<IOError>([&] { TapFile(card.path(), relative, file.verifier); }),
                  IOError("open", card / relative, code).what());
    const test::TempFolder memory("/dev/shm");
    const Tapped inMemory(memory.path(), 100, blockSize);
    EXPECT_THROW(inMemory.open(), TapRefused);
    EXPECT_FALSE(file.verifier->lengthObserved() || inMemory.verifier->lengthObserved());

    std::filesystem::resize_file(file.path, 99);
    const auto tap = file.open();
    EXPECT_EQ(file.verifier->finish(), BlockOutcome::sizeDiffers(99)) << "before anything is read";
    std::filesystem::resize_file(file.path, 50);
    EXPECT_EQ(readAt(*tap, 0, 100), file.content.substr(0, 50));
    EXPECT_EQ(readAt(*tap, 60, 10), "");
}

TEST(TapFile, HoldsAFewBlocksWhateverItIsAsked) {
    const test::TempFolder card;
    constexpr std::int64_t mebibyte = 1 << 20;
    const Tapped file(card.path(), 64 * mebibyte, mebibyte);
    const auto peak = [] { // in KiB, since it was last set back
        const std::string status = test::FileTree::read("/proc/self/status");
        return std::stoll(status.substr(status.find("VmHWM:") + 6));
    };
    test::FileTree::write("/proc/self/clear_refs", "5");
    const auto before = peak();
    const auto tap = file.open();
    for (std::int64_t at = 0; at < tap->length(); at += mebibyte / 2)
        readAt(*tap, at, 1000);
    EXPECT_EQ(file.verifier->finish(), BlockOutcome::verified());
    EXPECT_LT(peak() - before, 48 * 1024); // a sanitizer keeps a multiple of what is used
}

TEST(TapFile, EndsForManyReadersAtOnce) {
    const test::TempFolder card;
    const Tapped file(card.path(), 20 * blockSize + 5, blockSize);
    for (unsigned round = 0; round < 40; ++round) {
        auto tap = file.open();
        std::atomic<int> wrong = 0;
        std::vector<std::thread> readers;
        for (unsigned reader = 0; reader < 6; ++reader)
            readers.emplace_back([&, tap, random = std::minstd_rand(round * 10 + reader)]() mutable {
                try {
                    while (true) {
                        const std::size_t at = random() % file.content.size();
                        const std::size_t length = random() % 100'000;
                        wrong += readAt(*tap, static_cast<std::int64_t>(at), length) != file.content.substr(at, length);
                    }
                } catch (const Cancelled&) { // the only way out
                }
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 8));
        tap->dispose();
        for (std::thread& reader : readers)
            reader.join();
        tap.reset();
        EXPECT_EQ(wrong, 0);
        EXPECT_TRUE(eventually([] { return descriptors("DCIM/A.mov") == 0; }));
    }
    EXPECT_TRUE(file.verifier->unstableBlocks().empty());
}

TEST(TapFile, PassesOnAReadErrorAndWaitsForNoHungDisk) {
    VELMORA_NEEDS(test::PowerCutDisk::unavailable());
    test::PowerCutDisk disk(64);
    const Tapped file(disk.root(), 8 * blockSize, blockSize);
    disk.device().settle();
    auto tap = file.open();
    disk.device().fail(EIO, {.ops = "read", .times = 0});
    EXPECT_THAT(test::refusal<IOError>([&] { readAt(*tap, 0, 10); }), testing::StartsWith("read " + file.path));
    EXPECT_EQ(file.verifier->finish(), BlockOutcome::incomplete());
    disk.device().clear();

    EXPECT_EQ(readAt(*tap, 0, 10), file.content.substr(0, 10));
    ASSERT_TRUE(eventually([&] { return tap->fromDisk() == 2 * blockSize; }));
    disk.device().stall({.ops = "read", .times = 0});
    EXPECT_EQ(readAt(*tap, blockSize, 10), file.content.substr(blockSize, 10)) << "and the next one is asked for";
    std::thread waiting([tap] { EXPECT_THROW(readAt(*tap, 2 * blockSize, 10), Cancelled); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    tap->dispose();
    waiting.join();
    tap.reset();
    EXPECT_EQ(descriptors("DCIM/A.mov"), 1U) << "a read is still under way";
    disk.device().clear();
    EXPECT_TRUE(eventually([] { return descriptors("DCIM/A.mov") == 0; }));
    EXPECT_EQ(BlockReads::complete(disk.root(), "DCIM/A.mov", *file.verifier, {}).outcome, BlockOutcome::verified());
}

} // namespace
} // namespace velmora
