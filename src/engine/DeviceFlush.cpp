#include "engine/DeviceFlush.h"

#include "base/Errors.h"

#include <cerrno>

namespace velmora {

namespace {

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// A full disk cannot take the byte, yet it can be flushed: what was written before it filled up is as good as ever, and
// the flush of the file system that follows tells whether it got there. Of a flush, no failure is excused.
bool meansFull(const IOError& error) {
    return (error.code() == ENOSPC || error.code() == EDQUOT) && error.op() != "fsync";
}

} // namespace

DeviceFlush::DeviceFlush(std::string cardPath, std::string topFolder)
    : cardPath_(std::move(cardPath)), top_(std::move(topFolder)), device_(cardPath_) {}

void DeviceFlush::touched(const std::string& folder) {
    if (!coversEveryFile())
        touched_.insert(folder);
}

void DeviceFlush::makeNamesDurable(const std::string& folder) {
    IO::syncFolder(folder);
    for (std::string at = folder; at != top_ && at.size() > 1 && !durable_.contains(at);) {
        std::string parent = parentOf(at);
        IO::syncFolder(parent);
        durable_.insert(std::move(at));
        at = std::move(parent);
    }
}

void DeviceFlush::flush(bool mayUseFlushFile) {
    if (mayUseFlushFile)
        writeFlushFile();
    if (!coversEveryFile()) {
        for (const std::string& folder : touched_)
            makeNamesDurable(folder);
        touched_.clear();
    }
    device_.sync();
}

// One byte, flushed through to the drive: on drives and daemons that keep writes of their own in memory, a flush with
// something to write is the one that is sure to travel the whole way.
void DeviceFlush::writeFlushFile() {
    const std::string path = cardPath_ + "/" + std::string(flushFileName);
    bool created = false;
    try {
        UncachedWriter file(path, UncachedWriter::Open::createOrTruncate, CacheMode::dropBehind);
        created = true;
        static constexpr std::byte mark[1] = {std::byte{'x'}};
        file.writeAt(mark, 0);
        file.flush();
        file.close();
        created = false;
        IO::unlink(path);
    } catch (const IOError& error) {
        if (created) {
            try {
                IO::unlink(path);
            } catch (const IOError&) { // the first failure is the one to tell
            }
        }
        if (!meansFull(error))
            throw;
    }
}

} // namespace velmora
