#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace velmora {

// A folder held by a descriptor (O_PATH, open(2)): while it is held, its disk cannot be unmounted by the ordinary call,
// and it can be told whether the path still leads to this very folder. A forced or lazy unmount, a pulled disk and
// another disk mounted in its place all lead elsewhere; so does the same disk that was mounted again, for what was done
// in between went elsewhere. Move-only; any thread may ask.
class HeldFolder {
public:
    explicit HeldFolder(const std::string& path); // throws IOError; follows links
    ~HeldFolder();
    HeldFolder(HeldFolder&&) noexcept;
    HeldFolder& operator=(HeldFolder&&) = delete;

    // The folder at `path`/`relative`, looked up from this very folder, whatever the path leads to by now.
    HeldFolder below(const std::string& relative) const;

    const std::string& path() const noexcept { return path_; }
    std::uint64_t device() const noexcept { return identity_.device; } // st_dev of stat(2)
    std::uint64_t inode() const noexcept { return identity_.inode; }
    int descriptor() const noexcept; // of open(2) with O_PATH
    // Throws IOError when the path does not lead here any more: "stat" with the system's error, or ESTALE.
    void check() const;

private:
    class Handle;
    struct Identity {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t mount = 0; // 0 where the kernel does not tell
        bool operator==(const Identity&) const = default;
    };
    HeldFolder(int above, const std::string& relative, std::string path);
    static Identity identityOf(int folder, const std::string& path);

    std::string path_;
    std::string probe_; // the path in the form that makes a volume appear which is mounted on first use
    std::unique_ptr<Handle> handle_;
    Identity identity_;
};

} // namespace velmora
