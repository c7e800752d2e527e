#include "memory/Gzip.h"

#include "memory/FileListStore.h"

namespace velmora {
namespace {

using test::TempFolder;

constexpr std::size_t limit = 1 << 20;

TEST(Gzip, AgreesWithTheGzipProgramInBothDirections) {
    TempFolder folder;
    const std::string text = "DCIM/A001.MOV\t12345\t638000000000000000\n" + std::string(5000, 'x');
    const std::string ours = folder.path() + "/ours.gz";
    test::FileTree::write(ours, Gzip::compress(text));
    EXPECT_EQ(std::system(("gzip -t " + ours).c_str()), 0);
    EXPECT_EQ(std::system(("test \"$(gzip -dc " + ours + " | wc -c)\" = " + std::to_string(text.size())).c_str()), 0);
    // gzip writes the file's name into the header.
    const std::string theirs = folder.path() + "/named file";
    test::FileTree::write(theirs, text);
    ASSERT_EQ(std::system(("gzip -N '" + theirs + "'").c_str()), 0);
    EXPECT_EQ(Gzip::decompress(test::FileTree::read(theirs + ".gz"), limit), text);
    EXPECT_EQ(Gzip::compress(""), std::string("\x1f\x8b\x08\0\0\0\0\0\0\xff\x03\0\0\0\0\0\0\0\0\0", 20));
    EXPECT_EQ(Gzip::decompress(Gzip::compress(""), limit), "");
}

TEST(Gzip, RefusesEveryDamagedTruncatedAndOversizedFrame) {
    const std::string good = Gzip::compress("some text that is long enough to be worth it");
    for (std::size_t cut = 0; cut < good.size(); ++cut)
        EXPECT_FALSE(Gzip::decompress(good.substr(0, cut), limit)) << cut;
    for (std::size_t i = good.size() - 8; i < good.size(); ++i) {
        std::string flipped = good;
        flipped[i] = static_cast<char>(flipped[i] ^ 1);
        EXPECT_FALSE(Gzip::decompress(flipped, limit)) << i;
    }
    EXPECT_FALSE(Gzip::decompress(Gzip::compress(std::string(5000, 'a')), 4999));
    for (const int flags : {2, 4, 8, 16, 31}) {
        std::string header = good.substr(0, 18);
        header[3] = static_cast<char>(flags);
        EXPECT_FALSE(Gzip::decompress(header, limit)) << flags;
    }
}

TEST(FileListStore, KeepsEveryNameAndRefusesDamage) {
    TempFolder folder;
    const std::string path = folder.path() + "/history/x.files.gz";
    const std::vector<SourceFile> files = {{"ä b/ü&<.MOV", 1, {1700000000, 123456700}}, {"z", 0, {-5, 0}}};
    FileListStore::write(path, files);
    EXPECT_EQ(FileListStore::read(path), files);
    FileListStore::write(path, {});
    EXPECT_EQ(FileListStore::read(path), std::vector<SourceFile>());
    for (const char* text : {"a\t1\n", "a\t1\t2\t3\n", "a\tx\t2\n", "a\t1\t\n", "a\t99999999999999999999\t2\n"}) {
        test::FileTree::write(path, Gzip::compress(text));
        EXPECT_FALSE(FileListStore::read(path)) << text;
    }
    EXPECT_FALSE(FileListStore::read(folder.path() + "/none"));
}

} // namespace
} // namespace velmora
