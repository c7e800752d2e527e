#include "disks/BootSector.h"

#include "disks/VolumeSerial.h"

namespace velmora {
namespace {

using test::TempFolder;

struct Format {
    const char* name;
    const char* command; // %s is the image
    const char* sparse;  // its size
    BootSector::Serial expected;
};

class RealImages : public testing::TestWithParam<Format> {};

// The serial is the one that the makers' own program was told to write, read back from the image it made.
TEST_P(RealImages, GiveTheSerialThatWasFormattedIn) {
    const Format& format = GetParam();
    TempFolder folder;
    const std::string image = folder.path() + "/image";
    ASSERT_EQ(std::system(("truncate -s " + std::string(format.sparse) + " " + image).c_str()), 0);
    char command[512];
    std::snprintf(command, sizeof command, format.command, image.c_str());
    if (std::system((std::string(command) + " > /dev/null 2>&1").c_str()) != 0)
        GTEST_SKIP() << "no such mkfs here: " << command;
    const auto sector = BootSector::read(image);
    ASSERT_TRUE(sector);
    const auto serial = BootSector::serial(*sector);
    ASSERT_TRUE(serial);
    EXPECT_EQ(serial->filesystem, format.expected.filesystem);
    if (format.expected.value != 0)
        EXPECT_EQ(*serial, format.expected);
    else
        EXPECT_NE(serial->value, 0U);
}

INSTANTIATE_TEST_SUITE_P(Mkfs, RealImages,
                         testing::Values(Format{"fat32", "mkfs.fat -F 32 -i 1a2b3c4d %s", "64M", {"FAT32", 0x1A2B3C4D}},
                                         Format{"fat16", "mkfs.fat -F 16 -i 00ff10ee %s", "32M", {"FAT16", 0x00FF10EE}},
                                         Format{"exfat", "mkfs.exfat %s ", "64M", {"exFAT", 0}},
                                         Format{"ntfs", "mkfs.ntfs -F -Q %s", "64M", {"NTFS", 0}}),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(VolumeSerial, IsTakenFromAnIdentifierOnlyWhereItIsOne) {
    using VolumeFacts::serialFromUUID;
    EXPECT_EQ(serialFromUUID("msdos", "1A2B-3C4D"), 0x1A2B3C4DU);
    EXPECT_EQ(serialFromUUID("exfat", "1A2B-3C4D"), 0x1A2B3C4DU);
    EXPECT_EQ(serialFromUUID("ntfs", "0123456789ABCDEF"), 0x89ABCDEFU);
    for (const char* type : {"udf", "ext4", "hfsplus", "fuseblk", "msdos"})
        EXPECT_FALSE(serialFromUUID(type, "0123456789abcdef")) << type;
    EXPECT_FALSE(serialFromUUID("udf", "1A2B-3C4D"));
    EXPECT_FALSE(serialFromUUID("exfat", "0000-0000")) << "formatted without one";
    EXPECT_FALSE(serialFromUUID("ntfs", "0123456700000000"));
    EXPECT_FALSE(serialFromUUID("ntfs", "0123456789abcdeg"));
}

TEST(BootSector, TakesNothingFromShortForeignOrMissingSectors) {
    std::vector<std::byte> sector(512);
    EXPECT_FALSE(BootSector::serial(sector));
    std::memcpy(sector.data() + 3, "EXFAT   ", 8);
    sector[100] = std::byte{7};
    EXPECT_EQ(BootSector::serial(sector)->value, 7U);
    EXPECT_TRUE(BootSector::serial(std::span(sector).first(112)));
    EXPECT_FALSE(BootSector::serial(std::span(sector).first(111)));
    TempFolder folder;
    EXPECT_FALSE(BootSector::read(folder.path() + "/none"));
    std::ofstream(folder.path() + "/short") << std::string(511, 'x');
    EXPECT_FALSE(BootSector::read(folder.path() + "/short"));
}

TEST(BootSector, WritesAndParsesTheSerialAsPeopleDo) {
    EXPECT_EQ(BootSector::text(0x1A2B003C), "1A2B-003C");
    EXPECT_EQ(BootSector::parse("1a2B-003c"), 0x1A2B003CU);
    for (const char* bad : {"", "1A2B003C", "1A2B-003", "1A2B-003G", "1A2B_003C", "-1A2B-003C"})
        EXPECT_FALSE(BootSector::parse(bad)) << bad;
}

} // namespace
} // namespace velmora
