#include "job/RepairWork.h"

#include "base/RelativePath.h"
#include "platform/IO.h"
#include "verify/BackupVerifier.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <thread>
#include <utility>

namespace velmora {

namespace {

constexpr std::size_t chunkSize = 0x1000000;
constexpr int asideNames = 100;

RepairPlanner::Findings findingsOf(const VerifyResult& result) {
    if (result.folderGone)
        throw OffloadError::failed(result.cardPath +
                                   ": The backup folder disappeared — the disk may have been disconnected.");
    RepairPlanner::Findings findings;
    findings.defective = result.changed;
    for (const auto& [path, error] : result.unreadable)
        findings.defective.push_back(path);
    findings.missing = result.missing;
    return findings;
}

// An earlier repair that died may have left a copy under the name.
std::string moveAside(const std::string& from, const std::string& wanted) {
    IO::mkdirs(std::string(RelativePath::folder(wanted)));
    for (int n = 1; n <= asideNames; ++n) {
        const std::string to = n == 1 ? wanted : wanted + "." + std::to_string(n);
        try {
            IO::renameNoReplace(from, to);
            IO::syncFolder(std::string(RelativePath::folder(to)));
            return to;
        } catch (const IOError& error) {
            if (error.code() != EEXIST)
                throw;
        }
    }
    throw IOError("rename", wanted, EEXIST);
}

} // namespace

std::vector<RepairPlanner::Findings> RepairWork::examine(const IsCancelled& isCancelled) {
    {
        MutexLock lock(mutex_);
        progress_.assign(cardPaths_.size(), {});
    }
    std::vector<RepairPlanner::Findings> findings(cardPaths_.size());
    std::vector<std::exception_ptr> failures(cardPaths_.size());
    std::vector<std::thread> threads;
    for (std::size_t d = 0; d < cardPaths_.size(); ++d)
        threads.emplace_back([&, d] {
            try {
                const auto progress = [&](const VerifyProgress& now) {
                    MutexLock lock(mutex_);
                    progress_[d] = {now.bytes, now.totalBytes};
                };
                const VerifyResult result = BackupVerifier::verify(cardPaths_[d], chunkSize, progress, isCancelled);
                if (result.cancelled)
                    throw Cancelled();
                findings[d] = findingsOf(result);
            } catch (...) {
                failures[d] = std::current_exception();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::exception_ptr& failure : failures)
        if (failure)
            std::rethrow_exception(failure);
    return findings;
}

std::vector<std::int64_t> RepairWork::bytesRead() const {
    MutexLock lock(mutex_);
    std::vector<std::int64_t> bytes;
    for (const Progress& each : progress_)
        bytes.push_back(each.read);
    return bytes;
}

std::vector<std::int64_t> RepairWork::bytesTotal() const {
    MutexLock lock(mutex_);
    std::vector<std::int64_t> bytes;
    for (const Progress& each : progress_)
        bytes.push_back(each.total);
    return bytes;
}

OffloadEngine::BeforeRename RepairWork::mover(const RepairPlan& plan) {
    return [this, &plan](std::size_t destination, std::size_t file, const std::string& finalPath) {
        if (!plan.defective[file][destination] || !IO::exists(finalPath))
            return;
        const std::string& cardPath = cardPaths_[destination];
        const std::string& relPath = plan.plan.scan.files[file].relPath;
        const std::string to = moveAside(finalPath, RepairPlanner::asidePath(cardPath, plan.plan.generation, relPath));
        MutexLock lock(mutex_);
        setAside_.push_back({static_cast<std::int64_t>(destination), relPath, to.substr(cardPath.size() + 1)});
    };
}

void RepairWork::amend(OffloadReport& report) const {
    MutexLock lock(mutex_);
    if (setAside_.empty())
        return;
    std::vector<SetAsideCopy> sorted = setAside_;
    std::sort(sorted.begin(), sorted.end(), [](const SetAsideCopy& a, const SetAsideCopy& b) {
        return std::pair(a.path, a.destination) < std::pair(b.path, b.destination);
    });
    report.setAside = std::move(sorted);
}

} // namespace velmora
