#include "mhl/NestedHistories.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "mhl/MHL.h"
#include "mhl/MHLProblems.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"

#include <algorithm>
#include <deque>
#include <fmt/format.h>
#include <map>
#include <set>
#include <utility>

namespace velmora {

namespace {

// One folder that is named, with what is said of the files of its history.
struct Named {
    std::string folder; // relative to the card folder
    int depth = 1;
    std::set<std::pair<std::string, std::string>> files; // name and C4
};

// Every folder on the way is one, and no link leads to another place.
bool isPlainFolder(const std::string& cardPath, const std::string& folder) {
    std::string path = cardPath;
    for (const std::string_view part : split(folder, '/', false)) {
        path = path.append("/").append(part);
        try {
            if (!IO::lstat(path).isFolder) {
                return false;
            }
        } catch (const IOError&) {
            return false;
        }
    }
    return true;
}

class Search {
public:
    Search(const std::string& cardPath, const IsCancelled& isCancelled)
        : cardPath_(cardPath), isCancelled_(isCancelled) {}

    NestedHistories run(const MHLHistory& top) {
        collect("", 1, top);
        while (!waiting_.empty()) {
            const Named named = std::move(waiting_.front());
            waiting_.pop_front();
            look(named);
        }
        std::ranges::sort(result_.found, {}, &NestedHistory::folder);
        return std::move(result_);
    }

private:
    // What the generations of the history in `at` name.
    void collect(const std::string& at, int depth, const MHLHistory& history) {
        std::map<std::string, Named> folders;
        for (const MHLGeneration& generation : history.generations) {
            for (const MHLReference& reference : generation.references) {
                const std::string records(RelativePath::folder(reference.path));
                const std::string inner(RelativePath::folder(records));
                if (inner.empty() || RelativePath::name(records) != MHL::dirName) {
                    problem(at, MHLProblems::noNested(generation.seq, reference.path));
                    continue;
                }
                Named& named = folders[inner];
                named.files.emplace(RelativePath::name(reference.path), reference.c4);
            }
        }
        for (auto& [inner, named] : folders) {
            named.folder = at.empty() ? inner : at + "/" + inner;
            named.depth = depth;
            if (!seen_.insert(named.folder).second) {
                continue; // the history above has named it
            }
            if (depth > NestedHistories::maxDepth || seen_.size() > NestedHistories::maxHistories) {
                if (!std::exchange(tooMany_, true)) {
                    problem(at, MHLProblems::tooManyNested());
                }
                return;
            }
            waiting_.push_back(std::move(named));
        }
    }

    void look(const Named& named) {
        const std::string path = cardPath_ + "/" + named.folder;
        MHLHistory history;
        try {
            if (isPlainFolder(cardPath_, named.folder)) {
                history = MHLReader::read(path, isCancelled_, &left_);
            }
        } catch (const Cancelled&) {
            throw;
        } catch (const std::exception& error) {
            problem(named.folder, error.what());
            result_.unread.push_back(named.folder);
            return;
        }
        if (!history.exists) {
            result_.problems.push_back(MHLProblems::nestedMissing(named.folder));
            return;
        }
        for (const std::string& each : history.chainProblems) {
            problem(named.folder, each);
        }
        for (const auto& [name, c4] : named.files) {
            const auto same = [&](const MHLChainEntry& entry) {
                return entry.path == name && entry.c4 == c4 && !history.changed.contains(entry.seq);
            };
            if (std::ranges::none_of(history.chain, same)) {
                problem(named.folder, MHLProblems::nestedDiffers(name));
            }
        }
        collect(named.folder, named.depth + 1, history);
        result_.found.push_back({named.folder, std::move(history)});
    }

    void problem(const std::string& folder, const std::string& text) {
        result_.problems.push_back(folder.empty() ? text : MHLProblems::inNested(folder, text));
    }

    const std::string& cardPath_;
    const IsCancelled& isCancelled_;
    std::int64_t left_ = MHLReader::maxHistoryBytes;
    std::deque<Named> waiting_;
    std::set<std::string> seen_;
    bool tooMany_ = false;
    NestedHistories result_;
};

} // namespace

NestedHistories NestedHistories::read(const std::string& cardPath, const MHLHistory& top,
                                      const IsCancelled& isCancelled) {
    return Search(cardPath, isCancelled).run(top);
}

} // namespace velmora
