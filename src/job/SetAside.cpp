#include "job/SetAside.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"
#include "platform/IO.h"
#include "records/SourceFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <unordered_set>
#include <utility>

namespace velmora::SetAside {

namespace {

constexpr int mostOfOneName = 100;

// Relative to the card folder.
std::string folderOf(std::int64_t generation) {
    return fmt::format("{}/set-aside/{:04}", std::string_view(Layout::reportDirName), generation);
}

void makeFolders(const std::string& root, const std::string& relative) {
    std::string path = root;
    for (const std::string_view part : split(relative, '/', false)) {
        path += '/';
        path += part;
        if (!IO::exists(path))
            IO::mkdirNew(path);
        else if (!IO::lstat(path).isFolder)
            throw IOError("mkdir", path, ENOTDIR); // a link among them
    }
}

// The name that a file had before it was moved: a copy that found its name taken has a number behind it.
std::string nameBefore(const std::string& name, const std::unordered_set<std::string>& files) {
    const std::size_t dot = name.rfind('.');
    return files.contains(name) || dot == std::string::npos ? name : name.substr(0, dot);
}

} // namespace

void move(const std::string& cardPath, std::int64_t generation, const std::string& relPath) {
    const std::string wanted = RelativePath::join(folderOf(generation), relPath);
    const std::string folder(RelativePath::folder(wanted));
    makeFolders(cardPath, folder);
    const std::string from = RelativePath::join(cardPath, relPath);
    for (int n = 1; n <= mostOfOneName; ++n) {
        const std::string to = n == 1 ? wanted : fmt::format("{}.{}", wanted, n); // a run that died may have left one
        try {
            IO::renameNoReplace(from, RelativePath::join(cardPath, to));
            IO::syncFolder(RelativePath::join(cardPath, folder));
            return;
        } catch (const IOError& error) {
            if (error.code() != EEXIST)
                throw;
        }
    }
    throw IOError("rename", RelativePath::join(cardPath, wanted), EEXIST);
}

void makeWay(const std::string& cardPath, std::int64_t generation, const std::string& relPath, bool isTwin,
             const std::function<bool(const FileFacts&)>& isOwnWork) {
    const std::string path = RelativePath::join(cardPath, relPath);
    if (!IO::exists(path) || (isTwin && !IO::holdsName(path)))
        return;
    if (isOwnWork && isOwnWork(IO::lstat(path)))
        IO::unlink(path);
    else
        move(cardPath, generation, relPath);
}

void list(OffloadReport& report) {
    std::unordered_set<std::string> files;
    for (const auto& file : report.files)
        files.insert(file.path);
    std::vector<SetAsideCopy> copies;
    for (std::size_t d = 0; d < report.destinations.size(); ++d) {
        const std::string folder = folderOf(report.generationNumber());
        const std::string path = RelativePath::join(report.destinations[d].cardPath, folder);
        try {
            if (!IO::exists(path) || !IO::lstat(path).isFolder)
                continue;
            for (const SourceFile& file : Scanner::scan(path).files)
                copies.push_back({static_cast<std::int64_t>(d), nameBefore(file.relPath, files),
                                  RelativePath::join(folder, file.relPath)});
        } catch (const std::exception&) {
            continue; // the disk is gone, and the run says so itself
        }
    }
    std::ranges::sort(copies, {}, [](const SetAsideCopy& copy) { return std::pair(copy.path, copy.destination); });
    if (!copies.empty())
        report.setAside = std::move(copies);
}

} // namespace velmora::SetAside
