#include "engine/Layout.h"

#include "support/LoopImage.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::LoopImage;
using test::TempFolder;

TEST(Layout, MakesAnyNameOneSafeFolder) {
    const std::pair<std::string, std::string> cases[] = {
        {"A001", "A001"},
        {"  A 001 \t\n", "A 001"},
        {"a/b:c\\d", "a_b_c_d"},
        {"", "CARD"},
        {" \n ", "CARD"},
        {".", "CARD"},
        {"..", "CARD"},
        {"../etc", ".._etc"},
        {"ascmhl", "ascmhl_"},
        {"_Report", "_Report_"},
        {" _PROXY ", "_PROXY_"},
        {"_REPORTS", "_REPORTS"},
        {"Škoda 🎬 & <x>", "Škoda 🎬 & <x>"},
        {"bad\xff-byte", "bad_-byte"},
        {"line\nfeed\x7f", "line_feed_"},
        {"\xc2\x85next", "next"}, // U+0085 is a line end
        {"mid\xc2\x9b-dle", "CARD"},
    };
    for (const auto& [given, expected] : cases)
        EXPECT_EQ(Layout::sanitize(given), expected) << given;
    for (const char* good : {"2024-02-29", "2026-11-22", "0001-01-01"})
        EXPECT_TRUE(Layout::isDate(good)) << good;
    for (const char* bad : {"", "2026-11-2", "2026-11-222", "2026-11-22\n", " 2026-11-22", "2026/11/22", "２026-11-22",
                            "2024-13-01", "2026-02-31", "0000-01-01"})
        EXPECT_FALSE(Layout::isDate(bad)) << bad;
}

TEST(Layout, GivesAllDestinationsTheFirstNameThatIsFreeOnEach) {
    const TempFolder folder;
    const std::vector<std::string> roots{folder / "one", folder / "two"};
    const auto unique = [&] { return Layout::uniqueCardFolder(roots, "2026-11-22", "A001"); };
    EXPECT_EQ(unique(), "A001");
    test::FileTree::write(roots[1] + "/2026-11-22/A001/clip.mov", "x");
    EXPECT_EQ(unique(), "A001_2");
    fs::create_directories(roots[0] + "/2026-11-22");
    fs::create_symlink("nowhere", roots[0] + "/2026-11-22/A001_2"); // not a folder, but not free either
    EXPECT_EQ(unique(), "A001_3");
}

TEST(Layout, ComparesRootsAsPeopleMeanThem) {
    const TempFolder folder;
    fs::create_directories(folder / "Disk/Sub");
    fs::create_directory_symlink(folder / "Disk", folder / "link");
    const std::string disk = Layout::normalizedRoot(folder / "Disk");
    for (const char* same : {"Disk/", "Disk//", "./Disk", "link", "link/", "Disk/Sub/..", "link/./Sub/../"})
        EXPECT_EQ(Layout::normalizedRoot(folder / same), disk) << same;
    EXPECT_EQ(Layout::normalizedRoot(folder / "new/A"), Layout::normalizedRoot(folder / "NEW/a"));
    EXPECT_EQ(Layout::normalizedRoot(folder / "link/new"), disk + "/new") << "a folder that will only be created";
    EXPECT_NE(Layout::normalizedRoot(folder / "Disk/Sub"), disk);
    EXPECT_EQ(Layout::normalizedRoot("///"), "/");
}

TEST(Layout, NamesACardAfterItsVolumeOrItsFolder) {
    const TempFolder folder;
    fs::create_directories(folder / "Card: one/DCIM");
    for (const char* path : {"Card: one", "Card: one//", "Card: one/DCIM/.."})
        EXPECT_EQ(Layout::defaultCardName(folder / path), "Card_ one");
    VELMORA_NEEDS(LoopImage::unavailable(LoopImage::Kind::ext4));
    const LoopImage card(LoopImage::Kind::ext4, 0, "A001/R2K");
    EXPECT_EQ(Layout::defaultCardName(card.path() + "/"), "A001_R2K");
    fs::create_directory(card / "DCIM");
    EXPECT_EQ(Layout::defaultCardName(card / "DCIM"), "DCIM");
}

} // namespace
} // namespace velmora
