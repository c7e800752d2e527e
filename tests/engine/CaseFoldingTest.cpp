#include "engine/CaseFolding.h"

#include "engine/OffloadEngine.h"
#include "engine/RunRecorder.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "support/FileTree.h"
#include "support/LoopImage.h"

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

// The record of a run is nothing that this is about.
class NoRecord : public RunRecorder {
public:
    void write(Stage /*stage*/, const OffloadReport& /*report*/, const std::string& /*cardPath*/) override {}
};

TEST(CaseFolding, NeverLetsOneFileTakeTheNameOfAnother) {
    for (const auto& [kind, folds] :
         {std::pair(LoopImage::Kind::ext4, false), std::pair(LoopImage::Kind::exfat, true)}) {
        if (const auto why = LoopImage::unavailable(kind)) {
            GTEST_LOG_(INFO) << LoopImage::name(kind) << ": " << *why;
            continue;
        }
        const LoopImage disk(kind, 256);
        const test::TempFolder card;
        test::FileTree::write(card / "A001.MOV", "upper");
        test::FileTree::write(card / "a001.mov", "lower");
        test::FileTree::write(card / "other", "other");
        OffloadOptions options;
        options.chunkSize = 1 << 20;
        OffloadEngine engine(options);
        NoRecord recorder;
        const OffloadReport report =
            engine.run(engine.prepare({card.path(), {disk.path()}, "CARD", "2026-11-22"}), recorder);

        const std::string copy = disk / "2026-11-22/CARD";
        EXPECT_EQ(test::FileTree::read(copy + "/A001.MOV"), "upper") << LoopImage::name(kind);
        EXPECT_EQ(test::FileTree::read(copy + "/other"), "other");
        EXPECT_EQ(test::FileTree::read(copy + "/a001.mov"), folds ? "upper" : "lower");
        ASSERT_EQ(report.failedFiles().size(), folds ? 1U : 0U) << LoopImage::name(kind);
        EXPECT_EQ(report.safeToFormat(), !folds);
        if (folds) {
            EXPECT_EQ(report.failedFiles()[0]->path, "a001.mov");
            EXPECT_EQ(report.failedFiles()[0]->errors[0], CaseFolding::error("A001.MOV"));
        }
    }
}

} // namespace
} // namespace velmora
