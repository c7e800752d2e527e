#include "verify/VerifyFiles.h"

#include "base/Msg.h"
#include "blocks/BlockReads.h"
#include "blocks/BlockVerifier.h"
#include "records/OffloadReport.h"

#include <algorithm>
#include <utility>

namespace velmora {

namespace {

FileState stateNamed(std::string_view word) {
    for (const FileState state : {FileState::written, FileState::verified, FileState::failed})
        if (word == name(state))
            return state;
    return FileState::pending;
}

DestFileResult resultOf(const OffloadReport::FileEntry& entry, std::size_t destination, bool hasManifest) {
    if (destination >= entry.destinations.size())
        return {};
    DestFileResult result{stateNamed(entry.destinations[destination]), std::nullopt};
    if (result.state == FileState::failed && destination < entry.errors.size())
        result.error = entry.errors[destination];
    if (result.state == FileState::written && entry.sourceError)
        result.state = FileState::pending; // what stands there is not the whole file
    if (result.state == FileState::written && !hasManifest)
        result = {FileState::failed, "verify: no block hashes"};
    return result;
}

} // namespace

VerifyFiles::VerifyFiles(const OffloadReport& report, std::size_t destinations,
                         std::vector<std::vector<std::uint64_t>> blocks, std::int64_t blockSize)
    : toVerify_(destinations), results_(destinations), verifiers_(destinations), throughCache_(destinations),
      verified_(destinations) {
    blocks.resize(report.files.size());
    for (std::size_t file = 0; file < report.files.size(); ++file) {
        const OffloadReport::FileEntry& entry = report.files[file];
        files_.push_back({entry.path, entry.size});
        indexOf_.emplace(entry.path, file);
        manifests_.push_back(BlockManifest::make(entry.size, blockSize, std::move(blocks[file])));
        for (std::size_t d = 0; d < destinations; ++d) {
            results_[d].push_back(resultOf(entry, d, manifests_.back().has_value()));
            toVerify_[d] += results_[d].back().state == FileState::written ? entry.size : 0;
        }
    }
    for (auto& column : verifiers_)
        column.resize(files_.size());
    for (auto& column : throughCache_)
        column.resize(files_.size());
}

std::optional<std::size_t> VerifyFiles::indexOf(const std::string& path) const {
    const auto found = indexOf_.find(path);
    return found == indexOf_.end() ? std::nullopt : std::optional(found->second);
}

bool VerifyFiles::isWritten(std::size_t destination, std::size_t file) const {
    const MutexLock hold(lock_);
    return results_[destination][file].state == FileState::written;
}

std::shared_ptr<BlockVerifier> VerifyFiles::verifier(std::size_t destination, std::size_t file) {
    const MutexLock hold(lock_);
    std::shared_ptr<BlockVerifier>& verifier = verifiers_[destination][file];
    if (!verifier && manifests_[file])
        verifier = std::make_shared<BlockVerifier>(*manifests_[file]);
    return verifier;
}

std::shared_ptr<BlockVerifier> VerifyFiles::existing(std::size_t destination, std::size_t file) const {
    const MutexLock hold(lock_);
    return verifiers_[destination][file];
}

void VerifyFiles::settle(std::size_t destination, std::size_t file, DestFileResult result, bool throughCache,
                         const std::function<bool()>& isVoid) {
    const MutexLock hold(lock_);
    if (isVoid())
        return;
    throughCache_[destination][file] = result.state == FileState::verified && throughCache;
    results_[destination][file] = std::move(result);
}

void VerifyFiles::failWritten(std::size_t destination, std::string_view why) {
    const MutexLock hold(lock_);
    for (DestFileResult& result : results_[destination])
        if (result.state == FileState::written)
            result = {FileState::failed, std::string(why)};
}

void VerifyFiles::judgeAgain() {
    const MutexLock hold(lock_);
    for (std::size_t d = 0; d < results_.size(); ++d)
        for (std::size_t file = 0; file < files_.size(); ++file)
            if (const auto& verifier = verifiers_[d][file]; verifier && results_[d][file].state == FileState::verified)
                results_[d][file] = BlockReads::result(*verifier, verifier->finish());
}

VerifyFiles::Results VerifyFiles::results() const {
    const MutexLock hold(lock_);
    return results_;
}

VerifyFiles::Results VerifyFiles::resultsSoFar() const {
    const MutexLock hold(lock_);
    Results results = results_;
    for (std::size_t d = 0; d < results.size(); ++d)
        for (std::size_t file = 0; file < files_.size(); ++file) {
            const auto& verifier = verifiers_[d][file];
            FileState& state = results[d][file].state;
            if (throughCache_[d][file] || (verifier && !verifier->unstableBlocks().empty())) {
                if (state == FileState::verified)
                    state = FileState::written;
            } else if (state == FileState::written && verifier && verifier->lengthObserved() &&
                       verifier->finish() == BlockOutcome::verified())
                state = FileState::verified;
        }
    return results;
}

std::vector<std::int64_t> VerifyFiles::cachedReads() const {
    const MutexLock hold(lock_);
    std::vector<std::int64_t> counts;
    for (const auto& column : throughCache_)
        counts.push_back(std::ranges::count(column, true));
    return counts;
}

void VerifyFiles::addVerified(std::size_t destination, std::int64_t bytes) {
    const MutexLock hold(lock_);
    verified_[destination] += bytes;
}

std::int64_t VerifyFiles::verifiedSince(const Tap& tap) const {
    return std::max<std::int64_t>(0, verifiers_[tap.destination][tap.file]->verifiedBytes() - tap.before);
}

void VerifyFiles::beginTap(std::size_t destination, std::size_t file) {
    const MutexLock hold(lock_);
    taps_.push_back({destination, file, verifiers_[destination][file]->verifiedBytes()});
}

void VerifyFiles::endTap(std::size_t destination, std::size_t file) {
    const MutexLock hold(lock_);
    const auto tap =
        std::ranges::find_if(taps_, [&](const Tap& one) { return one.destination == destination && one.file == file; });
    if (tap == taps_.end())
        return;
    verified_[destination] += verifiedSince(*tap);
    taps_.erase(tap);
}

std::int64_t VerifyFiles::verifiedBytes(std::size_t destination) const {
    const MutexLock hold(lock_);
    std::int64_t bytes = verified_[destination];
    for (const Tap& tap : taps_)
        bytes += tap.destination == destination ? verifiedSince(tap) : 0;
    return std::min(bytes, toVerify_[destination]);
}

} // namespace velmora
