#include "job/SetAside.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "base/StopIf.h"
#include "base/Text.h"
#include "engine/Layout.h"
#include "memory/ReportFile.h"
#include "platform/IO.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <unordered_set>
#include <utility>

namespace velmora::SetAside {

namespace {

constexpr int mostOfOneName = 100;
constexpr std::int64_t largestPage = 1LL << 30;
// So many names pass between two looks at a cancel: the few files of an ordinary run are always listed.
constexpr int namesBetweenStops = 1000;

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

// The name of a file before it was moved. Where the name was taken, a number was appended.
std::string nameBefore(const std::string& name, const std::unordered_set<std::string>& files) {
    const std::size_t dot = name.rfind('.');
    const bool isNumbered = dot != std::string::npos && dot + 1 < name.size() &&
                            name.find_first_not_of("0123456789", dot + 1) == std::string::npos;
    return isNumbered && !files.contains(name) ? name.substr(0, dot) : name;
}

// Calls `put` with the first free path for `relPath`, whose folder is there then.
void place(const std::string& cardPath, std::int64_t generation, const std::string& relPath,
           const std::function<void(const std::string& to)>& put) {
    const std::string wanted = RelativePath::join(folderOf(generation), relPath);
    const std::string folder(RelativePath::folder(wanted));
    makeFolders(cardPath, folder);
    for (int n = 1; n <= mostOfOneName; ++n) {
        const std::string to = n == 1 ? wanted : fmt::format("{}.{}", wanted, n); // a run that died may have left one
        try {
            put(RelativePath::join(cardPath, to));
            IO::syncFolder(RelativePath::join(cardPath, folder));
            return;
        } catch (const IOError& error) {
            if (error.code() != EEXIST)
                throw;
        }
    }
    throw IOError("rename", RelativePath::join(cardPath, wanted), EEXIST);
}

// The files of a report, and the folders that lead to them.
struct Known {
    std::unordered_set<std::string> files;
    std::unordered_set<std::string> folders;

    void add(const std::string& path) {
        files.insert(path);
        for (std::string_view folder = RelativePath::folder(path); !folder.empty();
             folder = RelativePath::folder(folder))
            if (!folders.emplace(folder).second)
                break;
    }
};

// All that lies below `folder`, by its path there: files and links, and folders that hold nothing or that stood in the
// place of a file. An empty folder that leads to a file was made for one whose move a power cut took back.
void collect(const std::string& folder, const std::string& below, const Known& known, std::vector<std::string>& found,
             const std::function<void()>& stopNowAndThen) {
    for (const IOEntry& entry : IO::list(folder)) {
        stopNowAndThen();
        const std::string path = below.empty() ? entry.name : below + "/" + entry.name;
        const std::size_t before = found.size();
        if (entry.isFolder() && !known.files.contains(nameBefore(path, known.files)))
            collect(folder + "/" + entry.name, path, known, found, stopNowAndThen);
        if (!entry.isFolder() || (found.size() == before && !known.folders.contains(path)))
            found.push_back(path);
    }
}

} // namespace

void move(const std::string& cardPath, std::int64_t generation, const std::string& relPath) {
    const std::string from = RelativePath::join(cardPath, relPath);
    place(cardPath, generation, relPath, [&](const std::string& to) { IO::renameNoReplace(from, to); });
}

void keep(const std::string& cardPath, std::int64_t generation, const std::string& relPath) {
    std::string bytes;
    try {
        bytes = IO::readFileBeneath(cardPath, relPath, largestPage);
    } catch (const IOError&) {
        move(cardPath, generation, relPath);
        return;
    }
    place(cardPath, generation, relPath, [&](const std::string& to) { IO::writeFileNew(to, bytes); });
}

void strangePages(const std::string& cardPath, std::int64_t generation) {
    const std::string folder = std::string(Layout::reportDirName) + "/";
    const std::string json = folder + OffloadReport::jsonName(generation);
    const std::string text = folder + OffloadReport::textName(generation);
    const std::string path = RelativePath::join(cardPath, json);
    if (IO::exists(path)) {
        try {
            if (ReportFile::read(path).generationNumber() == generation)
                return;
        } catch (const IOError&) {
            throw;                        // what cannot be read now may be ours
        } catch (const std::exception&) { // it is no report
        }
        move(cardPath, generation, json);
    }
    if (IO::exists(RelativePath::join(cardPath, text)))
        move(cardPath, generation, text);
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

std::vector<std::string> list(OffloadReport& report, const IsCancelled& isCancelled) {
    std::vector<std::string> problems;
    Known known;
    for (const auto& file : report.files)
        known.add(file.path);
    std::vector<SetAsideCopy> copies;
    auto stopNowAndThen = [&isCancelled, seen = 0]() mutable {
        if (++seen % namesBetweenStops == 0)
            stopIf(isCancelled);
    };
    for (std::size_t d = 0; d < report.destinations.size(); ++d) {
        const std::string folder = folderOf(report.generationNumber());
        const std::string path = RelativePath::join(report.destinations[d].cardPath, folder);
        std::vector<std::string> found;
        try {
            if (!IO::exists(path) || !IO::lstat(path).isFolder)
                continue;
            collect(path, "", known, found, [&] { stopNowAndThen(); });
        } catch (const std::exception& error) {
            problems.push_back(
                fmt::format("What was set aside in {} cannot be listed in full ({}).", path, error.what()));
        }
        for (const std::string& each : found)
            copies.push_back({static_cast<std::int64_t>(d), escapeForDisplay(nameBefore(each, known.files)),
                              escapeForDisplay(RelativePath::join(folder, each))});
    }
    std::ranges::sort(copies, {}, [](const SetAsideCopy& copy) { return std::pair(copy.path, copy.destination); });
    if (!copies.empty())
        report.setAside = std::move(copies);
    return problems;
}

} // namespace velmora::SetAside
