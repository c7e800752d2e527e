#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace velmora {

// A folder held by a descriptor (O_PATH, open(2)): while it is held, its disk cannot be unmounted by the ordinary call,
// and it can be told whether the path still leads to this very folder. A forced or lazy unmount, a pulled disk and
// another disk mounted in its place all lead elsewhere. Move-only; any thread may ask.
class HeldFolder {
public:
    explicit HeldFolder(std::string path); // throws IOError; follows links above the last component only
    ~HeldFolder();
    HeldFolder(HeldFolder&&) noexcept;
    HeldFolder& operator=(HeldFolder&&) = delete;

    const std::string& path() const noexcept { return path_; }
    std::uint64_t device() const noexcept { return device_; } // st_dev of stat(2)
    std::uint64_t inode() const noexcept { return inode_; }
    int descriptor() const noexcept;
    // Throws IOError when the path does not lead here any more: "stat" with the system's error, or ESTALE.
    void check() const;

private:
    class Handle;
    std::string path_;
    std::unique_ptr<Handle> handle_;
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
};

} // namespace velmora
