#include "disks/Volumes.h"

#include "platform/VolumeFacts.h"

namespace velmora {
namespace {

using test::TempFolder;

void touch(const std::string& path) { test::FileTree::write(path, "x"); }

// The folder that a disk which is away was mounted on.
struct BareMountPoint {
    BareMountPoint() {
        if (!VolumeFacts::isVolumeRoot("/mnt"))
            std::filesystem::create_directories(path + "/sub", none);
    }
    ~BareMountPoint() { std::filesystem::remove_all(path, none); }
    std::error_code none; // who may not write there sees a folder that is gone
    const std::string path = "/mnt/velmora-disks-" + std::to_string(::getpid());
};

TEST(Volumes, RecogniseACameraCardByItsFoldersAndMedia) {
    struct Case {
        const char* what;
        std::vector<std::string> files;
        bool card;
    };
    std::vector<std::string> fiftyFirst;
    for (int i = 10; i < 60; ++i)
        fiftyFirst.push_back("a" + std::to_string(i) + "/notes.txt");
    std::vector<std::string> fiftieth = fiftyFirst;
    fiftieth.back() = "a59/A001.R3D";
    fiftyFirst.push_back("b/A001.R3D");
    for (const Case& c : std::vector<Case>{
             {"marker in lower case", {"dcim/x.txt"}, true},
             {"marker that is a file", {"DCIM"}, false},
             {"media in the root", {"clip.MXF"}, true},
             {"media one level down", {"stuff/A001.R3D"}, true},
             {"media two levels down", {"a/b/A001.R3D"}, false},
             {"the fiftieth folder still counts", fiftieth, true},
             {"the fifty-first does not", fiftyFirst, false},
             {"hidden folders do not stop it", {".Spotlight-V100/x", "CLIP/x"}, true},
             {"hidden media", {".x/A.mov", ".A.mov"}, false},
             {"a RED magazine", {"A001_1125AB.RDM/A001_C001.RDC/notes.txt"}, true},
             {"RED clips one level down", {"red/A001_C001.rdc/notes.txt"}, true},
             {"a folder with another extension of media", {"film.mov/notes.txt"}, false},
             {"documents", {"letter.pdf", "docs/a.txt"}, false},
         }) {
        TempFolder folder;
        for (const std::string& file : c.files)
            touch(folder.path() + "/" + file);
        EXPECT_EQ(Volumes::looksLikeCameraCard(folder.path()), c.card) << c.what;
    }
    EXPECT_FALSE(Volumes::looksLikeCameraCard("/nonexistent"));
}

TEST(Volumes, ProposeDisksAndKeepWhatWasChosen) {
    TempFolder chosen;
    const auto item = [](const char* path) {
        VolumeItem volume;
        volume.path = path;
        volume.name = std::string(path).substr(std::string(path).rfind('/') + 1);
        volume.isWritable = true;
        return volume;
    };
    std::vector<VolumeItem> volumes = {item("/mnt/A"),   item("/mnt/CARD"), item("/mnt/RO"), item("/mnt/INT"),
                                       item("/mnt/IGN"), item("/mnt/SRC"),  item("/mnt/B")};
    volumes[1].looksLikeCard = true;
    volumes[2].isWritable = false;
    volumes[3].ejectProblem = "an internal disk cannot be ejected";
    const BareMountPoint away;
    EXPECT_EQ(Volumes::autoDestinations({chosen.path(), "/gone", away.path, away.path + "/sub"}, volumes, {"IGN"},
                                        "/mnt/SRC/card"),
              (std::vector<std::string>{chosen.path(), "/mnt/A", "/mnt/B"}));
}

TEST(Volumes, FindFoldersInOneAnotherHoweverTheyAreReached) {
    TempFolder folder;
    touch(folder / "card/DCIM/a");
    touch(folder / "card2/a");
    std::filesystem::create_directories(folder / "bound");
    std::filesystem::create_directory_symlink("card/DCIM", folder / "link");
    const bool binds = ::geteuid() == 0;
    if (binds) {
        ASSERT_EQ(::mount((folder / "card/DCIM").c_str(), (folder / "bound").c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    using P = std::pair<const char*, bool>;
    for (const auto& [path, within] :
         {P{"card", true}, P{"card/new/deep", true}, P{"link/new", true}, P{"card2", false},
          P{"card2/../card/DCIM", true}, P{"", false}, P{"bound/new", binds}})
        EXPECT_EQ(Volumes::isWithin(folder / path, folder / "card"), within) << path;
    EXPECT_TRUE(Volumes::isWithin(folder.path(), "/"));
    ::umount((folder / "bound").c_str());
}

TEST(Volumes, KeepTheSelectionAndAddNewCards) {
    std::vector<VolumeItem> now(3);
    now[0].path = "/mnt/OLD";
    now[1].path = "/mnt/NEWCARD";
    now[1].looksLikeCard = true;
    now[2].path = "/mnt/NEWDISK";
    EXPECT_EQ(Volumes::selectionAfterRefresh({"/mnt/OLD", "/mnt/GONE"}, {"/mnt/GONE", "/mnt/OLD"}, now, true),
              (std::vector<std::string>{"/mnt/OLD", "/mnt/NEWCARD"}));
    EXPECT_EQ(Volumes::selectionAfterRefresh({}, {"/mnt/OLD"}, now, false), (std::vector<std::string>{"/mnt/OLD"}));
}

TEST(Volumes, ListTheVolumeOfADestinationWhereverItIsMounted) {
    TempFolder folder;
    const auto volumes = Volumes::scan({folder.path()});
    ASSERT_FALSE(volumes.empty());
    const VolumeItem& volume = volumes.back();
    EXPECT_TRUE(volume.isDestination);
    EXPECT_TRUE(folder.path().starts_with(volume.path));
    EXPECT_GT(volume.total, 0);
    EXPECT_LE(volume.free, volume.total);
    EXPECT_FALSE(volume.format.empty());
}

} // namespace
} // namespace velmora
