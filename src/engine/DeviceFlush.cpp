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

bool DeviceFlush::isLeftover(std::string_view name, std::int64_t size) {
    if (size > 1 || !name.starts_with(flushFileName))
        return false;
    const std::string_view rest = name.substr(flushFileName.size());
    return rest.empty() || (rest.size() > 1 && rest.front() == '-' &&
                            rest.find_first_not_of("0123456789", 1) == std::string_view::npos);
}

void DeviceFlush::flush(bool plainNameFree) {
    writeFlushFile(plainNameFree);
    if (!coversEveryFile()) {
        for (const std::string& folder : touched_)
            makeNamesDurable(folder);
        touched_.clear();
    }
    device_.sync();
}

// The card may hold a file or a folder of this name. It stays, unless it is the one byte of a killed run.
UncachedWriter DeviceFlush::openFlushFile(std::string& path, bool plainNameFree) const {
    using Open = UncachedWriter::Open;
    const std::string plain = cardPath_ + "/" + std::string(flushFileName);
    for (int number = 1;; ++number) {
        path = number == 1 ? plain : plain + "-" + std::to_string(number);
        try {
            if (number > 1 || plainNameFree)
                return UncachedWriter(path, Open::createNew, CacheMode::dropBehind);
        } catch (const IOError& error) {
            if (error.code() != EEXIST)
                throw;
            const FileFacts there = IO::lstat(path);
            if (number == 1 && there.isFile && there.size <= 1)
                return UncachedWriter(path, Open::createOrTruncate, CacheMode::dropBehind);
        }
    }
}

// One byte, flushed through to the drive: on drives and daemons that keep writes of their own in memory, a flush with
// something to write is the one that is sure to travel the whole way.
void DeviceFlush::writeFlushFile(bool plainNameFree) {
    std::string path;
    bool created = false;
    try {
        UncachedWriter file = openFlushFile(path, plainNameFree);
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
