#pragma once

#include "support/TempFolder.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace velmora::test {

// Runs a command of the system and gives what it printed, without the last line end; throws with that when it failed.
std::string shell(const std::string& command);

// A real file system in an image file on a loop device, mounted for as long as the object lives. Every program that
// uses it runs in a mount namespace of its own, and the loop device clears itself with its last user: whatever way the
// program ends, no mount, device or daemon stays behind.
class LoopImage {
public:
    enum class Kind { ext4, xfs, btrfs, exfat };

    // Why this machine cannot do it ("needs root", "mkfs.xfs is not installed", …); none when it can. For GTEST_SKIP.
    static std::optional<std::string> unavailable(Kind kind);
    static const char* name(Kind kind);

    // A sparse image of `mebibytes`, never smaller than the file system's own least size. Throws when a step fails.
    explicit LoopImage(Kind kind, std::int64_t mebibytes = 0, const std::string& label = "VELMORA");
    // Over a file that holds such a file system; each of its writes and flushes reaches the file as one.
    LoopImage(Kind kind, const std::string& image);
    ~LoopImage();
    LoopImage(const LoopImage&) = delete;
    LoopImage& operator=(const LoopImage&) = delete;

    const std::string& path() const { return mountPoint_; } // where it is mounted
    std::string operator/(const std::string& name) const { return mountPoint_ + "/" + name; }
    const std::string& device() const { return device_; } // "/dev/loop3"

    void unmount();
    void mount(bool readOnly = false); // after unmount()

private:
    void attach(const std::string& image, const std::string& options);
    void detach() noexcept;

    Kind kind_;
    TempFolder folder_;
    std::string mountPoint_;
    std::string device_;
    int deviceFd_ = -1; // keeps the loop device from clearing itself while nothing is mounted
    pid_t daemon_ = -1; // of the FUSE kinds
};

} // namespace velmora::test
