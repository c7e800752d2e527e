#pragma once

#include "support/LoopImage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace velmora::test {

// A mounted file system over a folder that fails on demand and whose power can be cut. One process of its own serves
// it; the destructor unmounts, and so does the process when the test dies.
//
//     FaultDisk disk;
//     disk.fail(EIO, {.ops = "write", .skip = 2, .pattern = "*/A001.MOV"});   // the third write
//     …work below disk.root()…
//     EXPECT_EQ(disk.hits(), 1);
//
// Operations carry the names of faultdisk/Rules.h; "change" stands for everything that alters the disk or flushes it.
class FaultDisk {
public:
    // The words why no FUSE file system can be mounted here, for GTEST_SKIP.
    static std::optional<std::string> unavailable();

    // ignored: no memory is spent on what a cut would take back. perFile: no syncfs reaches the disk, each file and
    // folder has to be flushed by itself.
    enum class Power { remembered, ignored, perFile };
    // Over an own temporary folder, or over `backing`, a folder of an earlier FaultDisk.
    explicit FaultDisk(const std::string& backing = {}, Power power = Power::remembered);
    ~FaultDisk();
    FaultDisk(const FaultDisk&) = delete;
    FaultDisk& operator=(const FaultDisk&) = delete;

    const std::string& root() const { return mount_; }
    const std::string& backing() const { return backing_; }
    std::string medium() const { return backing_ + "/tree"; } // what lies beneath, without faults

    // Which operations a fault strikes: passes over the first `skip` that match, then strikes `times` (0: every one).
    struct At {
        std::string ops = "change";
        std::int64_t skip = 0;
        std::int64_t times = 1;
        std::string pattern = "*"; // a glob over the path below the root, which begins with "/"
    };
    void fail(int error, const At& at);
    void cutShort(std::int64_t bytes, const At& at); // of a read or a write
    void flip(const At& at, std::int64_t bit = -1);  // of the bytes read or written; -1: one in the middle
    void delay(std::int64_t milliseconds, const At& at);
    void stall(const At& at); // until clear()
    // SIGKILL to the process whose operation it is, EIO for everybody from then on; `behind`: at the next change of the
    // disk after that operation.
    void crash(const At& at, bool behind = false);
    void fillUp(std::int64_t bytesLeft, const std::string& pattern = "*");
    void turnReadOnly(const At& at); // for good: EROFS for every change
    void vanish(const At& at);       // for good: ENODEV for everything
    void clear();                    // heals all faults
    void settle();                   // what is unflushed counts as flushed

    std::int64_t count(std::string_view ops = "change");
    std::int64_t hits();   // operations that a fault has struck
    std::string lastHit(); // "rename /card/.a.offload-part"

    // The power goes: of the changes that were never flushed, some land, some vanish, some turn to garbage. The disk
    // is unmounted afterwards; medium() holds what a later mount would find. Returns what was done, for the message of
    // a failing test. With `nothingLands` for a seed, all of them vanish.
    static constexpr std::uint64_t nothingLands = ~std::uint64_t{0};
    std::string cutPower(std::uint64_t seed, unsigned garbagePercent = 20);
    void unmount();

private:
    std::string ask(const std::string& line);
    void rule(std::string_view action, std::int64_t argument, const At& at);

    std::string own_; // temporary folder to remove
    std::string backing_, mount_;
    pid_t server_ = -1;
    int control_ = -1;
    std::string pending_; // bytes behind the last answer
};

// ext4 on a block device whose power can be cut: the image file lies on a FaultDisk, so that the blocks written since
// the last device flush are known.
class PowerCutDisk {
public:
    static std::optional<std::string> unavailable();
    explicit PowerCutDisk(std::int64_t mebibytes);
    const std::string& root() const { return image_->path(); }
    FaultDisk& device() { return disk_; } // faults of single blocks: read, write, fsync of "/disk.img"
    // Cuts the power and mounts again what survived, as a computer does that comes up again: root() is usable and on a
    // sound device afterwards. Returns what was done.
    std::string cutPowerAndRestart(std::uint64_t seed);

private:
    FaultDisk disk_;
    std::optional<LoopImage> image_;
};

} // namespace velmora::test
