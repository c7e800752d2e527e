#include "engine/CardFolders.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "engine/Layout.h"
#include "engine/Preflight.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <numeric>
#include <ranges>

namespace velmora::CardFolders {

namespace {

constexpr int mostNames = 1000;

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string deepestExisting(std::string path) {
    do
        path = parentOf(path);
    while (path.size() > 1 && IO::isGone(path));
    return path;
}

// Like mkdir -p for the folders above; the folder itself must be new.
void makeNew(const std::string& folder) {
    IO::mkdirs(parentOf(folder));
    IO::mkdirNew(folder);
}

// "A001_2" came of "A001" if that is taken somewhere: the next free name is looked for from there.
std::string nextName(const OffloadPlan& plan) {
    const std::size_t mark = plan.cardName.find_last_of('_');
    int number = 0;
    std::string base = plan.cardName;
    if (mark != std::string::npos && mark > 0) {
        const char* end = plan.cardName.data() + plan.cardName.size();
        const auto [at, code] = std::from_chars(plan.cardName.data() + mark + 1, end, number);
        const std::string stem = plan.cardName.substr(0, mark);
        const auto exists = [&](const std::string& root) {
            return IO::exists(Layout::cardPath(root, plan.date, stem));
        };
        if (code == std::errc() && at == end && number >= 2 && std::ranges::any_of(plan.destRoots, exists))
            base = stem;
    }
    return Layout::uniqueCardFolder(plan.destRoots, plan.date, base);
}

bool makesItsFolders(const OffloadPlan& plan) {
    return plan.mode == PlanMode::full && !plan.resuming && !plan.fixedCardPaths;
}

void removeFolders(const Destination& destination) {
    for (std::string at = destination.cardPath; at != destination.topFolder; at = parentOf(at))
        IO::removeEmptyFolder(at);
}

// False when another run has the name on one of the roots.
bool tryClaim(const OffloadPlan& plan, const std::vector<std::size_t>& order, std::vector<Destination>& all,
              const Check& check) {
    std::vector<const Destination*> taken;
    try {
        for (const std::size_t d : order) {
            Preflight::checkCopyAt(all[d].cardPath, plan.source);
            if (check)
                check(plan.destRoots[d]);
            try {
                makeNew(all[d].cardPath);
                taken.push_back(&all[d]);
            } catch (const IOError& error) {
                if (error.code() == EEXIST && error.path() == all[d].cardPath) {
                    for (const Destination* destination : taken)
                        IO::removeEmptyFolder(destination->cardPath);
                    return false;
                }
                all[d].error = error.what();
            }
            if (check) // what was made went there
                check(plan.destRoots[d]);
        }
    } catch (...) {
        for (const Destination* destination : taken)
            removeFolders(*destination);
        throw;
    }
    return true;
}

std::vector<Destination> destinationsOf(const OffloadPlan& plan) {
    std::vector<Destination> all;
    for (std::string& path : plan.cardPaths()) {
        std::string top = deepestExisting(path);
        all.push_back({std::move(path), std::move(top), std::nullopt});
    }
    return all;
}

void makeBelow(const std::string& cardPath, std::string_view relative, std::set<std::string, std::less<>>& made) {
    if (relative.empty() || made.contains(relative))
        return;
    makeBelow(cardPath, RelativePath::folder(relative), made);
    IO::mkdirBelow(RelativePath::join(cardPath, relative));
    made.emplace(relative);
}

} // namespace

std::vector<Destination> claim(OffloadPlan& plan, const Check& check) {
    if (!makesItsFolders(plan)) {
        std::vector<Destination> all = destinationsOf(plan);
        for (Destination& destination : all) {
            if (check)
                check(destination.cardPath);
            try {
                for (const char* records : {"/_REPORT", "/ascmhl"})
                    IO::removeTemporaries(destination.cardPath + records);
            } catch (const IOError& error) {
                destination.error = error.what();
            }
        }
        return all;
    }
    for (int attempt = 0; attempt < mostNames; ++attempt) {
        std::vector<Destination> all = destinationsOf(plan);
        std::vector<std::size_t> order(all.size());
        std::iota(order.begin(), order.end(), std::size_t{0});
        std::ranges::sort(order, {}, [&](std::size_t d) { return Layout::normalizedRoot(plan.destRoots[d]); });
        if (tryClaim(plan, order, all, check))
            return all;
        plan.cardName = nextName(plan);
    }
    throw OffloadError::failed("No free name for the card folder could be had: " + plan.cardName);
}

void giveBack(const OffloadPlan& plan, const std::vector<Destination>& claimed) noexcept {
    if (!makesItsFolders(plan))
        return;
    for (const Destination& destination : claimed) {
        if (destination.error)
            continue;
        try {
            for (const std::string& dir : plan.scan.dirs | std::views::reverse)
                IO::removeEmptyFolder(RelativePath::join(destination.cardPath, dir));
            removeFolders(destination);
        } catch (const std::exception&) { // another run works in this folder by now
        }
    }
}

std::set<std::string, std::less<>> createTree(const std::string& cardPath, const OffloadPlan& plan) {
    std::set<std::string, std::less<>> made;
    for (const std::string& dir : plan.scan.dirs)
        makeBelow(cardPath, dir, made);
    for (const SourceFile& file : plan.scan.files)
        makeBelow(cardPath, RelativePath::folder(file.relPath), made);
    return made;
}

} // namespace velmora::CardFolders
