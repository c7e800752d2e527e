#include "proxies/ProxyCopy.h"

#include "base/RelativePath.h"
#include "platform/File.h"
#include "platform/IO.h"
#include "proxies/ProxyPaths.h"

#include <cerrno>
#include <fmt/format.h>

namespace velmora::ProxyCopy {

namespace {

void copyBytes(const std::string& from, const std::string& to, const IsCancelled& isCancelled) {
    constexpr std::size_t block = std::size_t{4} << 20;
    UncachedReader reader(from);
    UncachedWriter writer(to, UncachedWriter::Open::createOrTruncate, CacheMode::direct);
    AlignedBuffer buffer(block);
    std::int64_t offset = 0;
    while (const std::size_t n = reader.readAt(buffer.span(), offset)) {
        if (isCancelled && isCancelled())
            throw Cancelled();
        writer.writeAt({buffer.data(), n}, offset);
        offset += static_cast<std::int64_t>(n);
        if (n < block)
            break;
    }
    writer.setModified(reader.facts().modified);
    writer.flush();
    writer.close();
}

} // namespace

void renameNoReplace(const std::string& from, const std::string& to) try {
    IO::renameNoReplace(from, to);
} catch (const IOError& error) {
    if (error.code() == EEXIST)
        throw Taken(to);
    throw;
}

void copyFile(const std::string& from, const std::string& to, bool replace, const IsCancelled& isCancelled) {
    if (!replace && IO::exists(to))
        throw Taken(to); // before the bytes are copied for nothing
    const std::size_t slash = to.find_last_of('/');
    IO::mkdirs(to.substr(0, slash));
    const std::string part = to + ".part";
    try {
        copyBytes(from, part, isCancelled);
        if (replace)
            IO::rename(part, to);
        else
            renameNoReplace(part, to);
    } catch (...) {
        try {
            IO::unlink(part);
        } catch (const IOError&) {
            // Nothing had been written, or the disk takes no more calls.
        }
        throw;
    }
    IO::syncFolder(to.substr(0, slash));
}

Placed toExtraFolder(const std::string& extra, const std::string& proxy, const std::string& date,
                     const std::string& cardName, const std::string& file, int maxAttempts,
                     const IsCancelled& isCancelled) {
    try {
        if (!IO::isFolder(extra))
            return {{}, "folder is not available"};
        const std::string folder = extra + "/" + date + "/" + cardName + "/";
        for (int attempt = 1; attempt <= maxAttempts; ++attempt)
            try {
                const std::string path = folder + ProxyPaths::numbered(file, attempt);
                copyFile(proxy, path, false, isCancelled);
                return {path, {}};
            } catch (const Taken&) {
                continue;
            }
        return {{}, fmt::format("no free name ({} tries)", maxAttempts)};
    } catch (const IOError& error) {
        return {{}, error.what()};
    }
}

} // namespace velmora::ProxyCopy
