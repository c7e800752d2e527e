#include "engine/Scanner.h"

#include "base/Msg.h"
#include "base/Text.h"
#include "platform/FolderReader.h"
#include "records/SourceFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora {

namespace {

constexpr std::array<std::string_view, 5> junkFolders{".Spotlight-V100", ".fseventsd", ".Trashes", ".TemporaryItems",
                                                      ".DocumentRevisions-V100"};
constexpr std::int64_t pathsBetweenPolls = 1000;

bool isJunkFolder(std::string_view name) { return std::ranges::find(junkFolders, name) != junkFolders.end(); }
bool isJunkFile(std::string_view name) { return name == ".DS_Store" || name.starts_with("._"); }

FolderReader openRoot(const std::string& root) {
    try {
        return FolderReader(root);
    } catch (const IOError& e) {
        if (e.code() == EPERM || e.code() == EACCES)
            throw OffloadError::preflight(PreflightCode::noReadAccess, Msg::noReadAccess(root));
        throw IOError("scan", root, ENOENT);
    }
}

// Allocated once and to size: a card's paths are what a scan costs.
std::string joined(const std::string& folder, const std::string& name) {
    std::string path;
    path.reserve(folder.size() + 1 + name.size());
    if (!folder.empty())
        path.append(folder).push_back('/');
    return path.append(name);
}

// One walk over a card. Folders wait on a stack and are opened one at a time, each from the root, so that neither the
// depth of the tree nor its width costs descriptors.
class Walk {
public:
    Walk(const std::string& root, const IsCancelled& isCancelled)
        : isCancelled_(isCancelled), rootFolder_(openRoot(root)) {
        scan_.root = root;
    }

    SourceScan run() {
        list(rootFolder_, {"", true});
        while (!waiting_.empty()) {
            const Folder folder = std::move(waiting_.back());
            waiting_.pop_back();
            visit(folder);
        }
        std::ranges::sort(scan_.files, {}, &SourceFile::relPath);
        std::ranges::sort(scan_.dirs);
        std::ranges::sort(scan_.uncopied, {}, &UncopiedItem::path);
        scan_.files.shrink_to_fit();
        return std::move(scan_);
    }

private:
    struct Folder {
        std::string path; // relative, "" for the root
        bool recordable;  // records can hold the path
    };

    void visit(const Folder& folder) {
        try {
            FolderReader reader = rootFolder_.beneath(folder.path);
            list(reader, folder);
        } catch (const IOError& e) {
            if (e.op() == "stat")
                throw;
            // A folder that does not open, or breaks off in the middle, hides files of unknown number. What it did
            // give is copied; that it did not give all must not be forgotten.
            if (folder.recordable) // else it is left out already
                leaveOut(folder.path, {}, true, std::string("folder cannot be read: ") + e.what());
        }
    }

    void list(FolderReader& reader, const Folder& folder) {
        std::string name;
        while (reader.next(name)) {
            if (++paths_ % pathsBetweenPolls == 0 && isCancelled_ && isCancelled_())
                throw Cancelled();
            take(reader.lstat(name), name, folder);
        }
    }

    void take(const FileFacts& facts, const std::string& name, const Folder& folder) {
        std::string path = joined(folder.path, name);
        const bool recordable = folder.recordable && isRecordableName(name);
        if (facts.isFolder && !isJunkFolder(name)) {
            if (recordable)
                scan_.dirs.push_back(path);
            else if (folder.recordable)
                leaveOut(path, {}, true, "folder name cannot be recorded (not UTF-8, or a control character)");
            waiting_.push_back({std::move(path), recordable});
        } else if (facts.isFile && !isJunkFile(name)) {
            if (recordable)
                scan_.files.push_back({std::move(path), facts.size, facts.modified});
            else
                leaveOut(path, facts, false,
                         folder.recordable ? "file name cannot be recorded (not UTF-8, or a control character)"
                                           : "the name of its folder cannot be recorded");
        } else {
            scan_.skipped.push_back(recordable ? std::move(path) : escapeForDisplay(path));
        }
    }

    void leaveOut(const std::string& path, const FileFacts& facts, bool isFolder, const std::string& why) {
        scan_.uncopied.push_back({.path = path,
                                  .shown = escapeForDisplay(path),
                                  .size = isFolder ? 0 : facts.size,
                                  .mtime = facts.modified,
                                  .isFolder = isFolder,
                                  .error = withValidUtf8(why)});
    }

    const IsCancelled& isCancelled_;
    FolderReader rootFolder_;
    std::vector<Folder> waiting_;
    std::int64_t paths_ = 0;
    SourceScan scan_;
};

} // namespace

SourceScan Scanner::scan(const std::string& root, const IsCancelled& isCancelled) {
    return Walk(root, isCancelled).run();
}

void Scanner::checkReadAccess(const std::string& path) {
    try {
        openRoot(path);
    } catch (const IOError&) { // not a matter of access
    }
}

} // namespace velmora
