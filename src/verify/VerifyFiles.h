#pragma once

#include "base/Mutex.h"
#include "records/FileState.h"
#include "records/ManifestRecord.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velmora {

class BlockVerifier;
struct OffloadReport;

// What is known of every file on every destination while it is verified. Files are numbered as in the report. A file
// that the copy has written becomes verified or failed, or stays written; nothing else changes. Any thread.
class VerifyFiles {
public:
    struct File {
        std::string path;
        std::int64_t size = 0;
    };
    using Results = std::vector<std::vector<DestFileResult>>; // per destination, per file

    // `blocks` are those of the source, a list for each file. A written file without them cannot be verified: it fails.
    VerifyFiles(const OffloadReport& report, std::size_t destinations, std::vector<std::vector<std::uint64_t>> blocks,
                std::int64_t blockSize);

    const std::vector<File>& files() const noexcept { return files_; }
    std::size_t destinations() const noexcept { return toVerify_.size(); }
    // By the very path of the report: two files may differ in case only.
    std::optional<std::size_t> indexOf(const std::string& path) const;

    bool isWritten(std::size_t destination, std::size_t file) const EXCLUDES(lock_);
    // What compares the file there with the source, made on demand; null without a manifest.
    std::shared_ptr<BlockVerifier> verifier(std::size_t destination, std::size_t file) EXCLUDES(lock_);
    // The same when it was asked for already.
    std::shared_ptr<BlockVerifier> existing(std::size_t destination, std::size_t file) const EXCLUDES(lock_);
    // Keeps the result of a file that was read, unless `isVoid`, asked under the lock, says that it does not count.
    void settle(std::size_t destination, std::size_t file, DestFileResult result, bool throughCache,
                const std::function<bool()>& isVoid) EXCLUDES(lock_);
    // Every file that is still written there has failed.
    void failWritten(std::size_t destination, std::string_view why) EXCLUDES(lock_);
    // A read that came late may have overturned what had been verified: that file fails.
    void judgeAgain() EXCLUDES(lock_);

    Results results() const EXCLUDES(lock_);
    // The same, with the files that are read to the last block but not settled yet, and without those of which the end
    // has a doubt to tell, of the disk or of the way they were read: a run that goes on from here reads them again.
    Results resultsSoFar() const EXCLUDES(lock_);
    std::vector<std::int64_t> cachedReads() const EXCLUDES(lock_);

    std::int64_t toVerify(std::size_t destination) const { return toVerify_[destination]; } // bytes, at the beginning
    void addVerified(std::size_t destination, std::int64_t bytes) EXCLUDES(lock_);
    // Of a file that is tapped, what is verified between these two counts as well, from the first moment on.
    void beginTap(std::size_t destination, std::size_t file) EXCLUDES(lock_);
    void endTap(std::size_t destination, std::size_t file) EXCLUDES(lock_);
    std::int64_t verifiedBytes(std::size_t destination) const EXCLUDES(lock_); // never above `toVerify`

private:
    struct Tap {
        std::size_t destination = 0;
        std::size_t file = 0;
        std::int64_t before = 0; // bytes verified when it began
    };
    std::int64_t verifiedSince(const Tap& tap) const REQUIRES(lock_);

    std::vector<File> files_;
    std::unordered_map<std::string, std::size_t> indexOf_;
    std::vector<std::optional<BlockManifest>> manifests_;
    std::vector<std::int64_t> toVerify_;

    mutable Mutex lock_;
    Results results_ GUARDED_BY(lock_);
    std::vector<std::vector<std::shared_ptr<BlockVerifier>>> verifiers_ GUARDED_BY(lock_); // as the results
    std::vector<std::vector<bool>> throughCache_ GUARDED_BY(lock_);                        // as the results
    std::vector<std::int64_t> verified_ GUARDED_BY(lock_);
    std::vector<Tap> taps_ GUARDED_BY(lock_);
};

} // namespace velmora
