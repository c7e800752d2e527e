#include "settings/AppSupport.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/AppSupportFolder.h"
#include "platform/IO.h"
#include "platform/ProcessId.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace velmora::AppSupport {

namespace fs = std::filesystem;

namespace {

// Not copied: tools, which are looked for in the old folders too; locks, which belong to running programs of the old
// name; copies that another migration has begun.
bool isNotCopied(const std::string& name) { return name == "bin" || name == "locks" || name.starts_with(".copying-"); }

constexpr int maxDepth = 16;

// Copies what it can; the names of files that could not be read go to `failed`.
void copyTree(const fs::path& from, const fs::path& to, int depth, std::vector<std::string>& failed) {
    std::error_code error;
    fs::create_directory(to, error);
    if (error)
        throw IOError("mkdir", to.string(), error.value());
    fs::directory_iterator entries(from, error);
    if (error && depth == 0) // nothing of it could be copied: an empty folder in its place would hide the old one
        throw IOError("list", from.string(), error.value());
    if (error || depth > maxDepth) {
        failed.push_back(from.filename().string());
        return;
    }
    for (; entries != fs::directory_iterator(); entries.increment(error)) {
        const std::string name = entries->path().filename().string();
        if (depth == 0 && isNotCopied(name))
            continue;
        const fs::file_status status = entries->symlink_status(error);
        if (fs::is_directory(status)) {
            copyTree(entries->path(), to / name, depth + 1, failed);
        } else if (fs::is_regular_file(status)) {
            fs::copy_file(entries->path(), to / name, error);
            if (error == std::errc::no_space_on_device)
                throw IOError("write", (to / name).string(), error.value());
            if (error)
                failed.push_back(name);
        }
    }
    if (error && depth == 0)
        throw IOError("list", from.string(), error.value());
    if (error)
        failed.push_back(from.filename().string());
}

void removeTree(const std::string& path) noexcept {
    std::error_code error;
    fs::remove_all(path, error);
}

// A name that no other process uses: the number of this one, and a counter for what a crash of an earlier process with
// that number may have left.
std::string temporaryBeside(const std::string& target) {
    const std::string parent(RelativePath::folder(target));
    for (std::int64_t n = processId();; n += 1'000'000'000)
        if (const std::string path = parent + "/.copying-" + std::to_string(n); !IO::exists(path))
            return path;
}

// A folder that cannot be asked is not passed over: the attempt to copy it says what is wrong.
bool isFolderOrHidden(const std::string& path) try { return IO::isFolder(path); } catch (const IOError&) {
    return true;
}

// Returns the names that could not be read.
std::vector<std::string> copyFolder(const std::string& from, const std::string& target) {
    IO::mkdirs(std::string(RelativePath::folder(target)));
    const std::string temporary = temporaryBeside(target);
    std::vector<std::string> failed;
    try {
        copyTree(from, temporary, 0, failed);
        IO::FileSystemSync(temporary).sync();
        IO::renameNoReplace(temporary, target);
    } catch (...) {
        removeTree(temporary);
        throw;
    }
    IO::syncFolder(std::string(RelativePath::folder(target)));
    std::sort(failed.begin(), failed.end());
    return failed;
}

} // namespace

std::string folder() { return AppSupportFolder::path(); }

std::vector<std::string> searchFolders() { return AppSupportFolder::searchFolders(); }

void migrate(const Log& log) {
    // A folder that somebody has named by hand takes over nothing.
    if (folder() != AppSupportFolder::dataHome() + "/Velmora")
        return;
    std::vector<std::string> earlier = searchFolders();
    earlier.erase(earlier.begin());
    migrate(folder(), earlier, log);
}

void migrate(const std::string& target, const std::vector<std::string>& earlier, const Log& log) {
    const auto say = [&](const std::string& line) {
        if (log)
            log(line);
    };
    const auto found = std::find_if(earlier.begin(), earlier.end(), isFolderOrHidden);
    if (found == earlier.end() || !IO::isGone(target))
        return;
    try {
        const std::vector<std::string> failed = copyFolder(*found, target);
        say("settings copied from " + *found + " (the old folder is left as it was; tools and locks stay there)" +
            (failed.empty() ? "" : "; not copied (could not be read): " + join(failed, ", ")));
    } catch (const IOError& error) {
        // Another process may have been quicker: then the folder is there, which is all that was wanted.
        if (error.code() != EEXIST || IO::isGone(target))
            say("could not copy the settings from " + *found);
    } catch (const std::exception&) {
        say("could not copy the settings from " + *found);
    }
}

} // namespace velmora::AppSupport
