#include "engine/CaseFolding.h"

#include "engine/CopyFixture.h"
#include "support/LoopImage.h"

namespace velmora::test {

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

TEST_F(CopyTest, NeverLetsOneFileTakeTheNameOfAnother) {
    for (const char* name : {"A001.MOV", "a001.mov", "other"})
        FileTree::write(card() + "/" + name, name);
    for (const auto kind : {LoopImage::Kind::ext4, LoopImage::Kind::exfat}) {
        if (LoopImage::unavailable(kind))
            continue;
        const bool folds = kind == LoopImage::Kind::exfat;
        const LoopImage disk(kind, 256);
        roots = {disk.path()};
        const OffloadReport report = run();
        EXPECT_EQ(FileTree::read(dest(0) + "/A001.MOV"), "A001.MOV");
        EXPECT_EQ(FileTree::read(dest(0) + "/other"), "other");
        EXPECT_EQ(FileTree::read(dest(0) + "/a001.mov"), folds ? "A001.MOV" : "a001.mov");
        EXPECT_EQ(allVerified(report), !folds);
        if (folds) {
            EXPECT_EQ(entry(report, "a001.mov").errors[0], CaseFolding::error("A001.MOV"));
        }
    }
}

} // namespace velmora::test
