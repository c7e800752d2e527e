#include "platform/IO.h"
#include "platform/HeldFolder.h"
#include "platform/PageCache.h"
#include "platform/linux/OpenFile.h"
#include "platform/linux/RenameNoReplace.h"
#include "support/LoopImage.h"

#include <dirent.h>
#include <sys/syscall.h>

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::LoopImage;
using test::TempFolder;
using test::FileTree::read;
using test::FileTree::write;

// The errno of the IOError that `work` throws; 0 when it throws none.
int codeOf(const std::function<void()>& work) {
    try {
        work();
        return 0;
    } catch (const IOError& error) {
        return error.code();
    }
}

std::size_t entries(const std::string& folder) { return IO::list(folder).size(); }

TEST(IO, MakesFoldersButFollowsNoLinkInTheirPlace) {
    const TempFolder folder;
    IO::mkdirs(folder / "a/b//c/");
    IO::mkdirs(folder / "a/b/c");
    EXPECT_TRUE(fs::is_directory(folder / "a/b/c"));

    write(folder / "file", "x");
    fs::create_directory_symlink(folder / "a", folder / "link");
    fs::create_symlink(folder / "outside", folder / "dangling");
    IO::mkdirs(folder / "link/d"); // a link to a folder that is there already is that folder
    EXPECT_TRUE(fs::is_directory(folder / "a/d"));
    EXPECT_EQ(codeOf([&] { IO::mkdirs(folder / "file"); }), ENOTDIR);
    EXPECT_EQ(codeOf([&] { IO::mkdirs(folder / "file/below"); }), ENOTDIR);
    EXPECT_NE(codeOf([&] { IO::mkdirs(folder / "dangling"); }), 0);
    EXPECT_NE(codeOf([&] { IO::mkdirs(folder / "dangling/below"); }), 0);
    EXPECT_FALSE(fs::exists(folder / "outside"));
}

TEST(IO, MakesOneFolderFromManyThreads) {
    const TempFolder folder;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n)
                EXPECT_EQ(codeOf([&] { IO::mkdirs(folder / std::to_string(n) + "/x/y"); }), 0);
        });
    for (auto& thread : threads)
        thread.join();
}

void expectRenamesWithoutReplacing(const std::string& folder, int (*rename)(const std::string&, const std::string&),
                                   bool folders) {
    write(folder + "/from", "new");
    write(folder + "/taken", "old");
    EXPECT_EQ(rename(folder + "/from", folder + "/taken"), EEXIST);
    EXPECT_EQ(read(folder + "/taken"), "old");
    EXPECT_EQ(read(folder + "/from"), "new");
    EXPECT_EQ(rename(folder + "/from", folder + "/to"), 0);
    EXPECT_EQ(read(folder + "/to"), "new");
    EXPECT_FALSE(fs::exists(folder + "/from"));
    EXPECT_EQ(rename(folder + "/gone", folder + "/other"), ENOENT);
    EXPECT_FALSE(fs::exists(folder + "/other"));
    if (folders) {
        write(folder + "/tree/in/it", "x");
        fs::create_directory(folder + "/empty");
        EXPECT_EQ(rename(folder + "/tree", folder + "/empty"), EEXIST);
        EXPECT_EQ(rename(folder + "/tree", folder + "/moved"), 0);
        EXPECT_EQ(read(folder + "/moved/in/it"), "x");
    }
    for (const auto& entry : fs::directory_iterator(folder))
        fs::remove_all(entry.path());
}

int renameAsTheSystemDoes(const std::string& from, const std::string& to) {
    return codeOf([&] { IO::renameNoReplace(from, to); });
}

TEST(IO, RenamesWithoutReplacingInEveryOfTheThreeWays) {
    const TempFolder folder;
    expectRenamesWithoutReplacing(folder.path(), RenameNoReplace::byKernel, true);
    expectRenamesWithoutReplacing(folder.path(), RenameNoReplace::byLink, false);
    expectRenamesWithoutReplacing(folder.path(), RenameNoReplace::byPlaceholder, true);
    expectRenamesWithoutReplacing(folder.path(), renameAsTheSystemDoes, true);
}

TEST(IO, RenamesWithoutReplacingWhereThereAreNoFlagsAndNoLinks) {
    VELMORA_NEEDS(LoopImage::unavailable(LoopImage::Kind::exfat));
    const LoopImage disk(LoopImage::Kind::exfat);
    write(disk / "a", "1");
    ASSERT_EQ(RenameNoReplace::byKernel(disk / "a", disk / "b"), EINVAL);
    ASSERT_EQ(RenameNoReplace::byLink(disk / "a", disk / "b"), EPERM);
    expectRenamesWithoutReplacing(disk.path(), renameAsTheSystemDoes, true);
}

TEST(IO, OnlyOneOfManyWritersGetsANewName) {
    const TempFolder folder;
    for (const auto rename : {RenameNoReplace::byKernel, RenameNoReplace::byLink, RenameNoReplace::byPlaceholder}) {
        std::atomic<int> winners{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 6; ++i)
            threads.emplace_back([&, i] {
                const std::string mine = folder / "from" + std::to_string(i);
                write(mine, std::to_string(i));
                const int code = rename(mine, folder / "to");
                EXPECT_TRUE(code == 0 || code == EEXIST) << code;
                winners += code == 0;
            });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(winners, 1);
        EXPECT_EQ(read(folder / "to").size(), 1U);
        fs::remove(folder / "to");
    }
}

TEST(IO, WritesSmallFilesWholeOrNotAtAll) {
    const TempFolder folder;
    const std::string longName = folder / std::string(255, 'n');
    IO::writeFileNew(longName, "first");
    EXPECT_EQ(read(longName), "first");
    EXPECT_EQ(test::refusal<IOError>([&] { IO::writeFileNew(longName, "second"); }),
              IOError("create", longName, EEXIST).what());
    EXPECT_EQ(read(longName), "first");
    ASSERT_EQ(::chmod(longName.c_str(), 0600), 0);
    IO::writeFileDurably(longName, std::string(100000, 'x'));
    EXPECT_EQ(read(longName), std::string(100000, 'x'));
    EXPECT_EQ(fs::status(longName).permissions(), fs::perms(0600)) << "a closed file was opened to others";

    // A link in the place of the file is replaced, not written through.
    write(folder / "target", "untouched");
    fs::create_symlink(folder / "target", folder / "link");
    IO::writeFileDurably(folder / "link", "own");
    EXPECT_EQ(read(folder / "target"), "untouched");
    EXPECT_FALSE(fs::is_symlink(folder / "link"));

    // Failures leave no temporary file.
    const std::size_t before = entries(folder.path());
    fs::create_directories(folder / "busy/below");
    EXPECT_NE(codeOf([&] { IO::writeFileDurably(folder / "busy", "x"); }), 0);
    EXPECT_EQ(codeOf([&] { IO::writeFileNew(folder / "nowhere/file", "x"); }), ENOENT);
    EXPECT_EQ(entries(folder.path()), before + 1);
}

TEST(IO, OpensNothingOutsideARootAndNoLink) {
    const TempFolder folder;
    write(folder / "secret", "secret");
    write(folder / "card/CLIP/a.mov", "clip");
    fs::create_symlink(folder / "secret", folder / "card/file-link");
    fs::create_symlink("CLIP/a.mov", folder / "card/inner-link");
    fs::create_directory_symlink(folder.path(), folder / "card/folder-link");
    ASSERT_EQ(::mkfifo((folder / "card/fifo").c_str(), 0600), 0);
    const struct {
        const char* relative;
        int code;
    } cases[] = {
        {"CLIP/a.mov", 0},
        {"../secret", EXDEV},
        {"CLIP/../../secret", EXDEV},
        {"/etc/passwd", EXDEV},
        {"", EXDEV},
        {".", EXDEV},
        {"CLIP/./a.mov", EXDEV},
        {"CLIP//a.mov", EXDEV},
        {"CLIP/", EXDEV},
        {"file-link", ELOOP},
        {"inner-link", ELOOP},
        {"folder-link/secret", ELOOP},
        {"missing", ENOENT},
        {"CLIP/a.mov/more", ENOTDIR},
        {"fifo", EINVAL},
        {"CLIP", EINVAL},
    };
    const HeldFolder root(folder / "card");
    for (const auto& c : cases) {
        EXPECT_EQ(codeOf([&] { UncachedReader::beneath(folder / "card", c.relative); }), c.code) << c.relative;
        EXPECT_EQ(codeOf([&] { UncachedReader::beneath(root, c.relative); }), c.code) << c.relative;
        EXPECT_EQ(codeOf([&] { IO::readFileBeneath(folder / "card", c.relative, 100); }), c.code) << c.relative;
        // The way for kernels without openat2 must give the same answers; it is called with what has passed the check
        // of words, and what is no regular file is refused behind it.
        if (c.code != EXDEV && c.code != EINVAL) {
            EXPECT_EQ(codeOf([&] { openBeneathByComponents(root.descriptor(), c.relative, c.relative); }), c.code)
                << c.relative;
        }
    }
    EXPECT_EQ(codeOf([&] { UncachedReader reader(folder / "card/fifo"); }), EINVAL);
    EXPECT_EQ(codeOf([&] { UncachedReader reader(folder / "card/inner-link"); }), ELOOP);
    for (const char* name : {"fifo", "inner-link", "CLIP"})
        for (const auto how : {UncachedWriter::Open::createOrTruncate, UncachedWriter::Open::existing})
            EXPECT_NE(codeOf([&] { UncachedWriter writer(folder / "card/" + name, how, CacheMode::direct); }), 0)
                << name;
    EXPECT_EQ(codeOf([&] { IO::readFile(folder / "card/fifo", 10); }), EINVAL);
    EXPECT_EQ(read(folder / "card/CLIP/a.mov"), "clip");
}

TEST(IO, ReadsSmallFilesUpToTheLimitAndNoFurther) {
    const TempFolder folder;
    for (const std::size_t size : {0, 1, 4095, 4096, 4097, 100000}) {
        write(folder / "f", std::string(size, 'a'));
        EXPECT_EQ(IO::readFile(folder / "f", static_cast<std::int64_t>(size)), std::string(size, 'a'));
        if (size > 0) {
            EXPECT_EQ(codeOf([&] { IO::readFile(folder / "f", static_cast<std::int64_t>(size) - 1); }), EFBIG);
        }
    }
    // The kernel says length 0 of these.
    EXPECT_THAT(IO::readFile("/proc/self/status", 1 << 20), testing::HasSubstr("Pid:"));
    EXPECT_EQ(codeOf([&] { IO::readFile("/proc/self/status", 10); }), EFBIG);
}

TEST(IO, NamesFileSystemsAndFlushesThem) {
    for (const auto kind :
         {LoopImage::Kind::ext4, LoopImage::Kind::xfs, LoopImage::Kind::btrfs, LoopImage::Kind::exfat}) {
        VELMORA_NEEDS(LoopImage::unavailable(kind));
        LoopImage disk(kind);
        EXPECT_EQ(IO::filesystemType(disk.path()), LoopImage::name(kind));
        {
            IO::FileSystemSync sync(disk.path());
            EXPECT_TRUE(sync.coversEveryFile());
            write(disk / "folder/file", std::string(3 << 20, 'x'));
            sync.sync();
        }
        IO::syncFolder(disk / "folder");

        // Nothing may wait for the disk any more: neither in the device's own pages …
        struct {
            std::uint64_t offset = 0, length = 0;
        } all;
        struct {
            std::uint64_t cached, dirty, writeback, evicted, recent;
        } pages{};
        const int device = ::open(disk.device().c_str(), O_RDONLY | O_CLOEXEC);
        if (::syscall(451, device, &all, &pages, 0U) == 0) {
            EXPECT_EQ(pages.dirty + pages.writeback, 0U) << LoopImage::name(kind);
        }
        ::close(device);
        // … nor in the file's: dropping passes over dirty pages.
        EXPECT_TRUE(PageCache::evict(disk / "folder/file"));
        EXPECT_EQ(PageCache::residentPages(disk / "folder/file").value().first, 0);

        const IO::Capacity space = IO::capacity(disk.path());
        EXPECT_GT(space.free, 10 << 20);
        EXPECT_LT(space.free, space.total);
        EXPECT_TRUE(IO::isWritable(disk.path()));
        disk.unmount();
        disk.mount(true);
        EXPECT_FALSE(IO::isWritable(disk.path())) << "root may write, but the disk is read-only";
    }
    EXPECT_EQ(IO::filesystemType("/proc"), "proc");
    EXPECT_EQ(IO::filesystemType("/nowhere"), "?");
}

TEST(IO, AnswersTheLittleQuestions) {
    const TempFolder folder;
    write(folder / "file", "12345");
    fs::create_symlink("file", folder / "link");
    fs::create_symlink("nowhere", folder / "dangling");
    EXPECT_TRUE(IO::exists(folder / "dangling"));
    for (const std::string& none : {folder / "nowhere", folder / "file/below"}) {
        EXPECT_FALSE(IO::exists(none));
        EXPECT_FALSE(IO::isFolder(none));
        EXPECT_TRUE(IO::isGone(none));
    }
    const std::string untold = folder / std::string(300, 'x'); // no such name can be asked for
    EXPECT_EQ(codeOf([&] { IO::exists(untold); }), ENAMETOOLONG);
    EXPECT_EQ(codeOf([&] { IO::isFolder(untold); }), ENAMETOOLONG);
    EXPECT_FALSE(IO::isGone(untold));
    EXPECT_TRUE(IO::stat(folder / "link").isFile);
    EXPECT_TRUE(IO::lstat(folder / "link").isLink);
    EXPECT_EQ(IO::stat(folder / "link").inode, IO::lstat(folder / "file").inode);
    EXPECT_EQ(IO::realPath(folder / "./link"), IO::realPath(folder / "file"));
    EXPECT_EQ(codeOf([&] { IO::realPath(folder / "dangling"); }), ENOENT);
    EXPECT_EQ(codeOf([&] { IO::list(folder / "file"); }), ENOTDIR);
    std::map<std::string, std::uint32_t> types;
    for (const IOEntry& entry : IO::list(folder.path()))
        types[entry.name] = entry.type;
    EXPECT_EQ(types, (std::map<std::string, std::uint32_t>{{"file", DT_REG}, {"link", DT_LNK}, {"dangling", DT_LNK}}));
}

} // namespace
} // namespace velmora
