#include "engine/CaseFolding.h"

#include "records/SourceFile.h"
#include "support/LoopImage.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace velmora {
namespace {

using test::LoopImage;

TEST(CaseFolding, FindsEveryNameThatSharesAnEarlierOne) {
    std::vector<SourceFile> files;
    for (const char* path :
         {"A.MOV", "DCIM/x", "Dcim/X", "a.mov", "b", "caf\xc3\xa9", "cafe\xcc\x81", "dcim/x", "É", "é"})
        files.push_back({path, 0, {}});
    std::string found;
    for (const CaseFolding::Collision& c : CaseFolding::collisions(files))
        found += files[c.file].relPath + "=" + files[c.first].relPath + " ";
    EXPECT_EQ(found, "Dcim/X=DCIM/x a.mov=A.MOV cafe\xcc\x81=caf\xc3\xa9 dcim/x=DCIM/x é=É ");
    EXPECT_TRUE(CaseFolding::collisions({}).empty());
}

TEST(CaseFolding, AsksTheDiskItself) {
    for (const auto& [kind, folds] :
         {std::pair(LoopImage::Kind::ext4, false), std::pair(LoopImage::Kind::exfat, true)}) {
        if (const auto why = LoopImage::unavailable(kind)) {
            GTEST_LOG_(INFO) << LoopImage::name(kind) << ": " << *why;
            continue;
        }
        const LoopImage disk(kind);
        const std::string card = disk / "2026-11-22";
        std::filesystem::create_directories(card);
        EXPECT_EQ(CaseFolding::foldsCase(card), folds) << LoopImage::name(kind);
        EXPECT_EQ(CaseFolding::foldsCase(card), folds) << "with the report folder there already";
    }
}

} // namespace
} // namespace velmora
