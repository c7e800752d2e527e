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
    // Looks for exactly the path in the report, since two files may differ in case only.
    std::optional<std::size_t> indexOf(const std::string& path) const;

    bool isWritten(std::size_t destination, std::size_t file) const EXCLUDES(lock_);
    // The verifier of the file on that destination, made on demand; null when the source gave no block hashes.
    std::shared_ptr<BlockVerifier> verifier(std::size_t destination, std::size_t file) EXCLUDES(lock_);
    // The same if it was made already; else null.
    std::shared_ptr<BlockVerifier> existing(std::size_t destination, std::size_t file) const EXCLUDES(lock_);
    // Keeps the result of a file that was read, unless `isVoid`, called under the lock, says that it no longer counts.
    void settle(std::size_t destination, std::size_t file, DestFileResult result, bool throughCache,
                const std::function<bool()>& isVoid) EXCLUDES(lock_);
    // Marks every file of this destination that is still `written` as failed.
    void failWritten(std::size_t destination, std::string_view why) EXCLUDES(lock_);
    // A late read may have proved a verified file wrong: judges the verified files again.
    void judgeAgain() EXCLUDES(lock_);

    Results results() const EXCLUDES(lock_);
    // The results for a report in between. A file whose blocks all matched already counts as verified. A file with
    // unstable blocks, or one that was read through the cache, does not, so that a later run reads it again.
    Results resultsSoFar() const EXCLUDES(lock_);
    std::vector<std::int64_t> cachedReads() const EXCLUDES(lock_);

    std::int64_t toVerify(std::size_t destination) const { return toVerify_[destination]; } // bytes, at the beginning
    void addVerified(std::size_t destination, std::int64_t bytes) EXCLUDES(lock_);
    // Between these two calls `verifiedBytes` also counts what a tap of this file has verified since the first of them.
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
