#pragma once

#include "platform/IO.h"

#include <set>
#include <string>

namespace velmora {

// Makes what one destination was given outlive a power cut, in the cheapest way that its file system allows.
//
// Small files are written, renamed and left to one `flush` for thousands of them: syncfs takes data and names to the
// medium together. Where syncfs does not reach that far (`coversEveryFile` is false: most FUSE daemons, SMB, 9p), each
// file has to be flushed before it is renamed, and `flush` makes the names of all touched folders durable.
//
// An error of a flush is final. The kernel may have marked the lost pages clean, so a later flush that succeeds says
// nothing about the files before it.
class DeviceFlush {
public:
    // Opened before the first write, so that the error of any file written meanwhile is seen. `topFolder` is the
    // deepest folder above the card folder that was there before this run.
    DeviceFlush(std::string cardPath, std::string topFolder);

    bool coversEveryFile() const noexcept { return device_.coversEveryFile(); }
    // A name has come into this folder and may wait for the next flush.
    void touched(const std::string& folder);
    // Names in this folder, and of the folder itself, are on the medium when this returns.
    void makeNamesDurable(const std::string& folder);
    // All that was written before the call is on the medium when it returns. `plainNameFree` is false when the backup
    // has a file that is called `flushFileName` itself.
    void flush(bool plainNameFree);

    static constexpr std::string_view flushFileName = ".offload-flush";
    // A file at the top of a card folder that a run left when it died in the middle of a flush.
    static bool isLeftover(std::string_view name, std::int64_t size);

private:
    void writeFlushFile(bool plainNameFree);
    UncachedWriter openFlushFile(std::string& path, bool plainNameFree) const;

    const std::string cardPath_;
    const std::string top_;
    IO::FileSystemSync device_;
    std::set<std::string> touched_;
    std::set<std::string> durable_; // folders whose own names are on the medium
};

} // namespace velmora
