#include "engine/Scanner.h"

#include "records/SourceFile.h"
#include "support/AsNobody.h"
#include "support/CodedRefusal.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::TempFolder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

void touch(const std::string& path) { test::FileTree::write(path, "x"); }

template <class T>
std::vector<std::string> all(const std::vector<T>& items, std::string T::* what) {
    std::vector<std::string> result;
    for (const T& item : items)
        result.push_back(item.*what);
    return result;
}
auto names(const SourceScan& scan) { return all(scan.files, &SourceFile::relPath); }
auto shown(const SourceScan& scan) { return all(scan.uncopied, &UncopiedItem::shown); }

TEST(Scanner, TellsFilesFoldersAndSystemJunkApart) {
    const TempFolder card;
    for (const char* path :
         {"DCIM/b.mov", "DCIM/B.mov", "DCIM/a/z.mov", "DCIM-2/x", "ascmhl.txt", "Sub/.Trashes", "Sub/._", "Sub/._b.mov",
          "Sub/.DS_Store", ".Spotlight-V100/store", ".fseventsd/log", "Sub/.Trashes2/kept", ".TemporaryItems/t",
          ".Trashes/deleted.mov", "Sub/.DocumentRevisions-V100/db"})
        touch(card / path);
    test::FileTree::write(card / "sized", std::string(1234, 'x'), 1'700'000'000);
    fs::create_directories(card / "empty/inner");
    fs::create_symlink("DCIM/b.mov", card / "link");
    fs::create_directory_symlink("/", card / "rootlink");
    ASSERT_EQ(::mkfifo((card / "fifo").c_str(), 0600), 0);

    const SourceScan scan = Scanner::scan(card.path());
    EXPECT_EQ(scan.root, card.path());
    EXPECT_THAT(names(scan), ElementsAre("DCIM-2/x", "DCIM/B.mov", "DCIM/a/z.mov", "DCIM/b.mov", "Sub/.Trashes",
                                         "Sub/.Trashes2/kept", "ascmhl.txt", "sized"));
    EXPECT_THAT(scan.dirs, ElementsAre("DCIM", "DCIM-2", "DCIM/a", "Sub", "Sub/.Trashes2", "empty", "empty/inner"));
    EXPECT_THAT(scan.skipped, UnorderedElementsAre("Sub/._", "Sub/._b.mov", "Sub/.DS_Store", ".Spotlight-V100",
                                                   ".fseventsd", ".Trashes", ".TemporaryItems",
                                                   "Sub/.DocumentRevisions-V100", "link", "rootlink", "fifo"));
    EXPECT_THAT(scan.uncopied, IsEmpty());
    EXPECT_EQ(scan.files.back().size, 1234);
    EXPECT_EQ(scan.files.back().mtime, (Timestamp{1'700'000'000, 0}));
}

TEST(Scanner, ListsWhatNoRecordCanHoldInsteadOfLosingIt) {
    const TempFolder card;
    for (const char* path : {"good.mov", "b\xff.mov", "two\nlines", "esc\x1b[1m", "sound/\xc3\x28/deep/clip.mov",
                             "sound/\xc3\x28/deep/._junk", "sound/ok.wav", "nonchar\xef\xbf\xbf"})
        touch(card / path);
    const SourceScan scan = Scanner::scan(card.path());
    EXPECT_THAT(names(scan), ElementsAre("good.mov", "sound/ok.wav"));
    EXPECT_THAT(scan.dirs, ElementsAre("sound")) << "no folder is made for what is not copied";
    EXPECT_THAT(shown(scan), UnorderedElementsAre("b\\xFF.mov", "two\\x0Alines", "esc\\x1B[1m", "sound/\\xC3(",
                                                  "sound/\\xC3(/deep/clip.mov", testing::StartsWith("nonchar")));
    EXPECT_THAT(scan.skipped, ElementsAre("sound/\\xC3(/deep/._junk"));
    for (const UncopiedItem& item : scan.uncopied) {
        EXPECT_EQ(item.isFolder, item.shown == "sound/\\xC3(") << item.shown;
        EXPECT_EQ(item.size, item.isFolder ? 0 : 1) << item.shown;
        EXPECT_THAT(item.error, HasSubstr("cannot be recorded")) << item.shown;
    }
}

TEST(Scanner, SaysWhichFoldersItCouldNotList) {
    VELMORA_NEEDS(test::notRoot());
    const TempFolder card;
    fs::permissions(card.path(), fs::perms(0755));
    touch(card / "DCIM/open/a.mov");
    touch(card / "DCIM/shut/b.mov");
    fs::permissions(card / "DCIM/shut", fs::perms(0700));
    SourceScan scan;
    test::asNobody([&] { scan = Scanner::scan(card.path()); });
    EXPECT_THAT(names(scan), ElementsAre("DCIM/open/a.mov"));
    ASSERT_THAT(shown(scan), ElementsAre("DCIM/shut"));
    EXPECT_TRUE(scan.uncopied[0].isFolder);
    EXPECT_THAT(scan.uncopied[0].error, HasSubstr("Permission denied"));

    fs::permissions(card.path(), fs::perms(0700));
    std::string refused;
    test::asNobody([&] { refused = test::codedRefusal([&] { Scanner::scan(card.path()); }); });
    EXPECT_THAT(refused, testing::StartsWith("noReadAccess: "));
}

TEST(Scanner, NeedsAFolderToScan) {
    const TempFolder card;
    touch(card / "file");
    for (const char* root : {"missing", "file"}) {
        EXPECT_THROW(Scanner::scan(card / root), IOError) << root;
        EXPECT_NO_THROW(Scanner::checkReadAccess(card / root)) << "not a matter of access";
    }
}

TEST(Scanner, AsksEveryThousandPathsWhetherToStop) {
    const TempFolder card;
    for (int i = 0; i < 2500; ++i)
        touch(card / ("d" + std::to_string(i % 7) + "/" + std::to_string(i)));
    int asked = 0;
    EXPECT_EQ(Scanner::scan(card.path(), [&] { return ++asked < 0; }).files.size(), 2500U);
    EXPECT_EQ(asked, 2); // 2,507 paths
    EXPECT_THROW(Scanner::scan(card.path(), [&] { return ++asked == 4; }), Cancelled);
}

// A card that is broken, or made to harm, may hold folders in folders without end.
TEST(Scanner, StopsBelowPathsThatNoCallCanOpen) {
    const TempFolder card;
    const std::string name(250, 'n');
    int fd = ::open(card.path().c_str(), O_RDONLY | O_DIRECTORY);
    for (int depth = 0; depth < 20; ++depth) {
        ASSERT_EQ(::mkdirat(fd, name.c_str(), 0755), 0);
        const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
    }
    ::close(fd);
    touch(card / (name + "/reachable"));
    const SourceScan scan = Scanner::scan(card.path());
    EXPECT_THAT(names(scan), ElementsAre(name + "/reachable"));
    EXPECT_EQ(scan.dirs.size(), 17U) << "16 that can be listed, and the one that cannot";
    ASSERT_EQ(scan.uncopied.size(), 1U);
    EXPECT_THAT(scan.uncopied[0].error, HasSubstr("File name too long"));
}

} // namespace
} // namespace velmora
