#include "engine/Scanner.h"

#include "base/Msg.h"
#include "base/Mutex.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "platform/FolderReader.h"
#include "records/SourceFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora {

namespace {

constexpr std::array<std::string_view, 5> junkFolders{".Spotlight-V100", ".fseventsd", ".Trashes", ".TemporaryItems",
                                                      ".DocumentRevisions-V100"};
constexpr std::int64_t pathsBetweenPolls = 1000;
constexpr std::int64_t pathsCountedAtOnce = 100; // a walker takes the lock only so often

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

// Two threads look at files twice as fast as one: nearly all of a scan is spent in the kernel, or waiting for the card.
constexpr std::size_t walkers = 2;

// The folders that wait to be listed. They are opened one at a time by each walker, each from the root, so that neither
// the depth of the tree nor its width costs descriptors.
class WaitingFolders {
public:
    struct Folder {
        std::string path; // relative, "" for the root
        bool recordable;  // records can hold the path
    };

    void add(std::vector<Folder> folders) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        std::ranges::move(folders, std::back_inserter(waiting_));
        changed_.notifyAll();
    }

    // The next folder; waits while another walker may still find some. None at the end, or when a walker has failed.
    std::optional<Folder> next() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        while (waiting_.empty() && busy_ > 0 && !failed_)
            changed_.wait(mutex_);
        if (waiting_.empty() || failed_)
            return std::nullopt;
        ++busy_;
        Folder folder = std::move(waiting_.back());
        waiting_.pop_back();
        return folder;
    }

    // What `next` gave has been listed, or could not be and ends the walk.
    void done(bool failed) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        --busy_;
        failed_ = failed_ || failed;
        changed_.notifyAll();
    }

private:
    Mutex mutex_;
    Condition changed_;
    std::vector<Folder> waiting_ GUARDED_BY(mutex_);
    int busy_ GUARDED_BY(mutex_) = 0;
    bool failed_ GUARDED_BY(mutex_) = false;
};

using Folder = WaitingFolders::Folder;

// Asks now and then whether the walk is to stop; the walkers count together, and only one asks at a time.
class StopPoll {
public:
    explicit StopPoll(const IsCancelled& isCancelled) : isCancelled_(isCancelled) {}

    // Throws Cancelled.
    void count(std::int64_t paths) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const std::int64_t before = paths_ / pathsBetweenPolls;
        paths_ += paths;
        if (paths_ / pathsBetweenPolls != before && isCancelled_ && isCancelled_())
            throw Cancelled();
    }

private:
    const IsCancelled& isCancelled_;
    Mutex mutex_;
    std::int64_t paths_ GUARDED_BY(mutex_) = 0;
};

// What one thread finds of a card.
class Walker {
public:
    Walker(const FolderReader& root, WaitingFolders& waiting, StopPoll& poll)
        : root_(root), waiting_(waiting), poll_(poll) {}

    SourceScan run() {
        while (const auto folder = waiting_.next()) {
            try {
                visit(*folder);
            } catch (...) {
                waiting_.done(true);
                throw;
            }
            waiting_.done(false);
        }
        return std::move(scan_);
    }

private:
    void visit(const Folder& folder) {
        try {
            FolderReader reader = root_.beneath(folder.path);
            list(reader, folder);
        } catch (const IOError& e) {
            if (e.op() == "stat" || folder.path.empty())
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
            if (++paths_ % pathsCountedAtOnce == 0)
                poll_.count(pathsCountedAtOnce);
            take(reader.lstat(name), name, folder);
        }
        waiting_.add(std::exchange(below_, {}));
    }

    void take(const FileFacts& facts, const std::string& name, const Folder& folder) {
        std::string path = joined(folder.path, name);
        const bool recordable = folder.recordable && isRecordableName(name);
        if (facts.isFolder && !isJunkFolder(name)) {
            if (recordable)
                scan_.dirs.push_back(path);
            else if (folder.recordable)
                leaveOut(path, {}, true, "folder name cannot be recorded (not UTF-8, or a control character)");
            below_.push_back({std::move(path), recordable});
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

    const FolderReader& root_;
    WaitingFolders& waiting_;
    StopPoll& poll_;
    std::vector<Folder> below_; // of the folder being listed
    std::int64_t paths_ = 0;
    SourceScan scan_;
};

template <class T>
void append(std::vector<T>& to, std::vector<T>& from) {
    if (to.size() < from.size())
        to.swap(from);
    std::ranges::move(from, std::back_inserter(to));
}

} // namespace

SourceScan Scanner::scan(const std::string& root, const IsCancelled& isCancelled) {
    const FolderReader rootFolder = openRoot(root);
    WaitingFolders waiting;
    waiting.add({{"", true}});
    StopPoll poll(isCancelled);
    auto found = sideBySide(walkers, [&](std::size_t) { return Walker(rootFolder, waiting, poll).run(); });
    SourceScan scan = std::move(found.front());
    for (SourceScan& more : std::span(found).subspan(1)) {
        append(scan.files, more.files);
        append(scan.dirs, more.dirs);
        append(scan.skipped, more.skipped);
        append(scan.uncopied, more.uncopied);
    }
    scan.root = root;
    std::ranges::sort(scan.files, {}, &SourceFile::relPath);
    std::ranges::sort(scan.dirs);
    std::ranges::sort(scan.uncopied, {}, &UncopiedItem::path);
    scan.files.shrink_to_fit();
    return scan;
}

void Scanner::checkReadAccess(const std::string& path) {
    try {
        openRoot(path);
    } catch (const IOError&) { // not a matter of access
    }
}

} // namespace velmora
