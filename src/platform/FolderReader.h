#pragma once

#include "platform/File.h"

#include <memory>
#include <string>

namespace velmora {

// Lists folders name by name and looks at their entries without following links: how a card is walked. One descriptor
// for each FolderReader that is alive.
class FolderReader {
public:
    // Links in `path` itself are followed. IOError("open", …) when it cannot be listed.
    explicit FolderReader(const std::string& path);
    ~FolderReader();
    FolderReader(FolderReader&&) noexcept;
    FolderReader& operator=(FolderReader&&) = delete;

    // The folder `relative` below this one, or with "" this one anew. IOError("open", …): a link on the way is ELOOP or
    // ENOTDIR, an unsafe path EXDEV, a path that other calls could not take ENAMETOOLONG.
    FolderReader beneath(const std::string& relative) const;

    // The next name, without "." and ".."; false at the end. IOError("read", …).
    bool next(std::string& name);
    // What stands under `name` in this folder; a link is not followed. IOError("stat", …).
    FileFacts lstat(const std::string& name) const;

private:
    struct Stream;
    explicit FolderReader(std::unique_ptr<Stream> stream);
    std::unique_ptr<Stream> stream_;
};

} // namespace velmora
