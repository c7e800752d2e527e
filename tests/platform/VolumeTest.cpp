#include "platform/VolumeFacts.h"
#include "platform/VolumeWatcher.h"
#include "platform/linux/BlockDevice.h"
#include "support/LoopImage.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::LoopImage;
using test::TempFolder;

// A mount table and a device tree as a laptop with a card reader, a USB disk and an encrypted root shows them.
class InventedComputer : public testing::Test {
protected:
    void SetUp() override {
        system_.mountinfo = folder_ / "mountinfo";
        system_.sysfs = folder_ / "sys";
        test::FileTree::write(system_.mountinfo,
                              R"(21 1 254:0 / / rw,relatime - ext4 /dev/mapper/root rw
22 21 0:20 / /proc rw - proc proc rw
23 21 259:1 / /boot rw - ext4 /dev/nvme0n1p1 rw
30 21 8:17 / /media/ann/EOS\040DIGITAL ro,nosuid - vfat /dev/sdb1 rw,fmask=0022
31 21 8:33 / /run/media/ann/T7 rw - fuseblk /dev/sdc1 rw
32 21 0:50 / /mnt/nas rw - nfs4 server:/export rw
33 21 0:51 / /mnt/ram rw - tmpfs tmpfs rw
34 21 0:52 / /mnt/remote rw - fuse.sshfs ann@server: rw
35 21 179:1 / /mnt rw - exfat /dev/mmcblk0p1 rw
36 21 259:3 / /mnt/data rw - xfs /dev/nvme0n1p3 rw
37 21 8:18 / /run/media/ann/T7 rw - ext4 /dev/sdb2 rw
this line makes no sense
38 21 0:53 /@home /home rw - btrfs /dev/nvme0n1p4 rw
39 21 8:17 /DCIM /home/ann/bound rw - vfat /dev/sdb1 rw
40 21 0:54 / /media/ann/auto rw - autofs systemd-1 rw
)");
        disk("devices/pci0/usb1/1-2/host0/block/sdb", {"sdb1", "sdb2"}, "8:17 8:18", "1");
        disk("devices/pci0/usb1/1-3/host1/block/sdc", {"sdc1"}, "8:33", "0");
        disk("devices/pci0/nvme/block/nvme0n1", {"nvme0n1p1", "nvme0n1p2", "nvme0n1p3", "nvme0n1p4"},
             "259:1 259:2 259:3 259:4", "0");
        disk("devices/pci0/mmc_host/mmc0/mmc0:1/block/mmcblk0", {"mmcblk0p1"}, "179:1", "0");
        test::FileTree::write(folder_ / "sys/devices/pci0/mmc_host/mmc0/mmc0:1/type", "SD\n");
        disk("devices/virtual/block/dm-0", {}, "", "0");
        link("dev/block/254:0", "devices/virtual/block/dm-0");
        fs::create_directories(folder_ / "sys/devices/virtual/block/dm-0/slaves");
        fs::create_symlink(folder_ / "sys/devices/pci0/nvme/block/nvme0n1/nvme0n1p2",
                           folder_ / "sys/devices/virtual/block/dm-0/slaves/nvme0n1p2");
    }

    void link(const std::string& from, const std::string& to) {
        fs::create_directories(fs::path(folder_ / "sys/" + from).parent_path());
        fs::create_symlink(folder_ / "sys/" + to, folder_ / "sys/" + from);
    }
    void disk(const std::string& path, const std::vector<std::string>& parts, const std::string& numbers,
              const std::string& removable) {
        const std::string name = fs::path(path).filename();
        test::FileTree::write(folder_ / "sys/" + path + "/removable", removable + "\n");
        link("class/block/" + name, path);
        std::istringstream words(numbers);
        for (const std::string& part : parts) {
            std::string number;
            words >> number;
            test::FileTree::write(folder_ / "sys/" + path + "/" + part + "/partition", "1\n");
            link("class/block/" + part, path + "/" + part);
            link("dev/block/" + number, path + "/" + part);
        }
    }

    TempFolder folder_;
    VolumeFacts::System system_;
};

TEST_F(InventedComputer, KnowsTheMountOfAPath) {
    const struct {
        const char* path;
        const char* mountPoint;
        const char* type;
        bool local;
        const char* below;
    } cases[] = {
        {"/media/ann/EOS DIGITAL/DCIM/x", "/media/ann/EOS DIGITAL", "vfat", true, "DCIM/x"},
        {"/media/ann/EOS DIGITAL2/x", "/", "ext4", true, "media/ann/EOS DIGITAL2/x"},
        {"/media/ann/EOS DIGITAL/", "/media/ann/EOS DIGITAL", "vfat", true, ""},
        {"/mnt/nas/a", "/mnt/nas", "nfs4", false, "a"},
        {"/mnt/remote", "/mnt/remote", "fuse.sshfs", false, ""},
        {"/run/media/ann/T7/a", "/run/media/ann/T7", "ext4", true, "a"}, // the mount on top
        {"/mnt/other", "/mnt", "exfat", true, "other"},
    };
    for (const auto& c : cases) {
        const auto mount = VolumeFacts::mount(c.path, system_);
        ASSERT_TRUE(mount) << c.path;
        EXPECT_EQ(mount->mountPoint, c.mountPoint) << c.path;
        EXPECT_EQ(mount->fsType, c.type) << c.path;
        EXPECT_EQ(mount->local, c.local) << c.path;
        EXPECT_EQ(VolumeFacts::underRoot(c.path, system_), c.below) << c.path;
        EXPECT_EQ(VolumeFacts::isVolumeRoot(c.path, system_), std::string(c.below).empty()) << c.path;
    }
    EXPECT_TRUE(VolumeFacts::mount("/media/ann/EOS DIGITAL", system_)->readOnly);
    system_.mountinfo = "/nowhere";
    EXPECT_FALSE(VolumeFacts::mount("/mnt", system_));
}

TEST_F(InventedComputer, ShowsTheVolumesOfAUser) {
    std::vector<std::string> seen;
    for (const auto& volume : VolumeFacts::userVolumes(system_))
        seen.push_back(volume.mountPoint + " " + volume.device);
    EXPECT_THAT(seen, testing::ElementsAre("/media/ann/EOS DIGITAL /dev/sdb1", "/mnt/nas server:/export",
                                           "/mnt/remote ann@server:", "/mnt /dev/mmcblk0p1", "/mnt/data /dev/nvme0n1p3",
                                           "/run/media/ann/T7 /dev/sdb2"));
    for (const char* path : {"/", "/media", "/media/", "/run/media", "/Volumes", "/mntx", "/home/ann/media/x"})
        EXPECT_FALSE(VolumeFacts::isUserVolumePath(path)) << path;
    for (const char* path : {"/media/ann", "/media/ann/EOS/DCIM", "/mnt", "/mnt/", "/Volumes/CARD"})
        EXPECT_TRUE(VolumeFacts::isUserVolumePath(path)) << path;
}

TEST_F(InventedComputer, KnowsWhereADiskIsAwayAndWhereMountsShowTheSamePlace) {
    for (const char* there : {"/mnt", "/mnt/data/sub", "/mnt/any", "/media/ann/EOS DIGITAL/x", "/run/media/ann/T7",
                              "/home/x", "/", "/media2/x", "/mnt/ram"})
        EXPECT_FALSE(VolumeFacts::awaitsVolume(there, system_)) << there;
    for (const char* away : {"/media/ann", "/media/ann/T7", "/media/ann/EOS DIGITAL2", "/Volumes/A/b", "/run/media/bob",
                             "/media/ann/auto", "/media"})
        EXPECT_TRUE(VolumeFacts::awaitsVolume(away, system_)) << away;
    EXPECT_EQ(VolumeFacts::placeOnVolume("/media/ann/EOS DIGITAL", system_), "8:17");
    EXPECT_EQ(VolumeFacts::placeOnVolume("/media/ann/EOS DIGITAL/DCIM/x", system_), "8:17/DCIM/x");
    EXPECT_EQ(VolumeFacts::placeOnVolume("/home/ann/bound/x", system_), "8:17/DCIM/x");
    // Without the exFAT card on /mnt itself the folders in it are bare, but for what is mounted on them.
    const std::string table = test::FileTree::contents(folder_.path()).at("mountinfo");
    const std::map<std::string, bool> places{
        {"/mnt/any", true}, {"/mnt/dat", true}, {"/mnt/data/sub", false}, {"/mnt/nas", false}};
    for (const char* instead : {"", "35 21 0:55 / /mnt rw - tmpfs none rw\n"}) {
        test::FileTree::write(system_.mountinfo,
                              table.substr(0, table.find("35 ")) + instead + table.substr(table.find("36 ")));
        EXPECT_EQ(VolumeFacts::awaitsVolume("/mnt", system_), *instead == '\0') << instead;
        for (const auto& [path, away] : places)
            EXPECT_EQ(VolumeFacts::awaitsVolume(path, system_), away) << path << instead;
    }
}

TEST_F(InventedComputer, TellsBuiltInDisksFromWhatAUserPlugs) {
    const struct {
        const char* path;
        bool internal;
        bool system;
    } cases[] = {
        {"/", true, true},
        {"/home", true, true},     // Btrfs: no device number of its own; another partition of the system's disk
        {"/mnt/data", true, true}, // another partition of the disk under the encrypted root
        {"/media/ann/EOS DIGITAL", false, false},
        {"/mnt", false, false}, // an SD card
        {"/mnt/nas", false, false},
        {"/mnt/ram", true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(VolumeFacts::isInternal(c.path, system_), c.internal) << c.path;
        EXPECT_EQ(VolumeFacts::isSystemDisk(c.path, system_), c.system) << c.path;
    }
    EXPECT_THAT(VolumeFacts::wholeDisks("/dev/sdc1", system_), testing::ElementsAre("sdc"));
    EXPECT_THAT(VolumeFacts::wholeDisks("/dev/dm-0", system_), testing::ElementsAre("nvme0n1"));
    EXPECT_TRUE(BlockDevice::isPluggable("sdc", system_.sysfs)) << "on USB, though its medium stays in";
    EXPECT_FALSE(BlockDevice::isPluggable("nvme0n1", system_.sysfs));
}

TEST(VolumeFacts, ReadsRealFileSystems) {
    const auto before = Timestamp::now();
    for (const auto kind :
         {LoopImage::Kind::ext4, LoopImage::Kind::xfs, LoopImage::Kind::btrfs, LoopImage::Kind::exfat}) {
        VELMORA_NEEDS(LoopImage::unavailable(kind));
        const LoopImage disk(kind, 0, "MY CARD");
        test::FileTree::write(disk / "DCIM/a", "x");
        const auto mount = VolumeFacts::mount(disk / "DCIM/a");
        ASSERT_TRUE(mount);
        EXPECT_EQ(mount->mountPoint, fs::canonical(disk.path()).string());
        EXPECT_EQ(mount->device, disk.device());
        EXPECT_TRUE(mount->local);
        EXPECT_EQ(VolumeFacts::underRoot(disk / "DCIM/../DCIM/a"), "DCIM/a");
        EXPECT_EQ(VolumeFacts::label(disk / "DCIM"), "MY CARD");
        EXPECT_EQ(VolumeFacts::nameOfVolumeAt(disk.path()), "MY CARD");
        EXPECT_EQ(VolumeFacts::nameOfVolumeAt(disk / "DCIM"), "");
        const std::string uuid = VolumeFacts::volumeUUID(disk.path()).value_or("");
        EXPECT_THAT(uuid, testing::MatchesRegex(kind == LoopImage::Kind::exfat ? "[0-9A-F]{4}-[0-9A-F]{4}"
                                                                               : "[0-9a-f]{8}(-[0-9a-f]{4}){3}-.*"));
        EXPECT_FALSE(VolumeFacts::isInternal(disk.path()));
        EXPECT_FALSE(VolumeFacts::isSystemDisk(disk.path()));
        EXPECT_GT(VolumeFacts::capacity(disk.path()), 32 << 20);
        const auto created = VolumeFacts::created(disk.path());
        EXPECT_EQ(created.has_value(), kind == LoopImage::Kind::ext4);
        if (created) {
            EXPECT_LT(std::abs(secondsBetween(before, *created)), 60);
        }
        EXPECT_EQ(VolumeFacts::readFirstBytes(disk.device(), 512).size(), 512U);
    }
    EXPECT_TRUE(VolumeFacts::isSystemDisk("/"));
    EXPECT_TRUE(VolumeFacts::readFirstBytes("/nowhere", 512).empty());
}

TEST(VolumeFacts, ResolvesPathsAsFarAsTheyExist) {
    const TempFolder folder;
    const std::string real = fs::canonical(folder.path());
    fs::create_directories(folder / "a");
    fs::create_directory_symlink("a", folder / "link");
    EXPECT_EQ(VolumeFacts::realPath(folder / "link/"), real + "/a");
    EXPECT_EQ(VolumeFacts::realPath(folder / "link/new/./deep//x"), real + "/a/new/deep/x");
    EXPECT_EQ(VolumeFacts::realPath("/nowhere/x/"), "/nowhere/x");
    EXPECT_EQ(VolumeFacts::realPath(""), fs::current_path().string());
    EXPECT_EQ(VolumeFacts::realPath("not-there"), fs::current_path().string() + "/not-there");
}

TEST(VolumeWatcher, CallsWhenAVolumeComesAndGoesAndNotAfterwards) {
    VELMORA_NEEDS(test::notRoot());
    const TempFolder folder;
    std::atomic<int> calls{0};
    const auto waitFor = [&](int wanted) {
        for (int i = 0; i < 500 && calls < wanted; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return calls.load();
    };
    {
        const VolumeWatcher watcher([&] { ++calls; });
        ASSERT_EQ(::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=1m"), 0);
        EXPECT_GE(waitFor(1), 1);
        const int so_far = calls;
        ASSERT_EQ(::umount(folder.path().c_str()), 0);
        EXPECT_GE(waitFor(so_far + 1), so_far + 1);
    }
    const int last = calls;
    {
        const VolumeWatcher watcher([&] { ++calls; });
        const auto begin = std::chrono::steady_clock::now();
        while (calls == last && std::chrono::steady_clock::now() - begin < std::chrono::seconds(10)) {
            ASSERT_EQ(::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=1m"), 0);
            ASSERT_EQ(::umount(folder.path().c_str()), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_GT(calls, last) << "while mounts come and go without a rest";
    }
    const int end = calls;
    ASSERT_EQ(::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=1m"), 0);
    ::umount(folder.path().c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(calls, end);
}

} // namespace
} // namespace velmora
