#pragma once

#include <memory>
#include <string>

namespace velmora {

class FileLock;

// A folder for this process alone, "offload-{uuid}" in the system's temporary folder, mode 0700. It goes with its
// object. What a killed process has left there is removed when the next folder is made: the owner holds a lock on its
// folder, which the system lets go of when it dies, so that no number of a process has to be believed.
class PrivateFolder {
public:
    PrivateFolder();                                   // throws IOError
    explicit PrivateFolder(const std::string& within); // in another folder than the system's temporary one
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
    std::unique_ptr<FileLock> lock_;
};

} // namespace velmora
