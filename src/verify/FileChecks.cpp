#include "verify/FileChecks.h"

#include "base/Text.h"
#include "blocks/HashAlgo.h"
#include "blocks/ReadAhead.h"
#include "platform/IO.h"

#include <algorithm>
#include <cerrno>

namespace velmora {

namespace {

using Expected = VerifyTask::Expected;

class Reading {
public:
    Reading(VerifyResult& result, const VerifyTask& task, std::size_t memory, const std::function<bool()>& isThere,
            const VerifyProgressHook& progress, const IsCancelled& isCancelled, PauseGate::Worker* pausing)
        : result_(result), task_(task), isThere_(isThere), progress_(progress), isCancelled_(isCancelled),
          pausing_(pausing), buffer_(IO::allocateAligned(memory)), reader_(buffer_.span()) {}

    bool run() {
        if (!addUp())
            return false;
        for (const Expected& file : task_.files) {
            if (pausing_ != nullptr)
                pausing_->waitWhilePaused(isCancelled_);
            if (stopped())
                return false;
            tell(file);
            const std::int64_t before = result_.bytesRead;
            check(file);
            if (result_.cancelled || result_.folderGone)
                return false;
            // A file shorter than expected shortens the total: nobody waits for bytes that are not there.
            total_ += result_.bytesRead - before - sizes_[index_++];
        }
        return true;
    }

private:
    struct Digest {
        const MHLHash* recorded;
        std::unique_ptr<RunningHash> running;
    };

    bool stopped() {
        if (!result_.cancelled && isCancelled_ && isCancelled_())
            result_.cancelled = true;
        return result_.cancelled;
    }

    // How much there is to read: lists tell no sizes, so the disk is asked.
    bool addUp() {
        sizes_.reserve(task_.files.size());
        for (const Expected& file : task_.files) {
            if (stopped())
                return false;
            sizes_.push_back(file.size ? *file.size : sizeOnDisk(file.path));
            total_ += sizes_.back();
        }
        return true;
    }

    std::int64_t sizeOnDisk(const std::string& path) const {
        try {
            return IO::lstat(result_.cardPath + "/" + path).size;
        } catch (const IOError&) {
            return 0; // its check tells why
        }
    }

    void tell(const Expected& file) {
        if (progress_)
            progress_({file.path, static_cast<std::int64_t>(index_), static_cast<std::int64_t>(task_.files.size()),
                       result_.bytesRead, std::max(total_, result_.bytesRead)});
    }

    void check(const Expected& file) {
        try {
            auto reader = UncachedReader::beneath(result_.cardPath, file.path);
            const std::int64_t size = reader.facts().size;
            if (file.size && *file.size != size) {
                result_.changed.push_back(file.path);
                return;
            }
            compare(reader, size, file);
        } catch (const IOError& error) {
            // A disk that was pulled would otherwise show as a long list of missing files.
            if (!isThere_())
                result_.folderGone = true;
            else if (error.code() == ENOENT || error.code() == ENOTDIR)
                result_.missing.push_back(file.path);
            else
                result_.unreadable.push_back({file.path, error.what()});
        } catch (const Cancelled&) {
            result_.cancelled = true;
        }
    }

    void compare(UncachedReader& file, std::int64_t size, const Expected& expected) {
        std::vector<Digest> digests;
        for (const MHLHash& hash : expected.hashes)
            if (auto running = HashAlgo::make(toLower(hash.algorithm)))
                digests.push_back({&hash, std::move(running)});
        if (digests.empty()) {
            result_.unreadable.push_back({expected.path, "the record holds no checksum that Velmora knows"});
            return;
        }
        reader_.read(file, size, [&](std::span<const std::byte> bytes) {
            for (Digest& digest : digests)
                digest.running->update(bytes.data(), bytes.size());
            result_.bytesRead += static_cast<std::int64_t>(bytes.size());
            if (stopped())
                throw Cancelled();
            tell(expected);
        });
        ++result_.checked;
        const bool equal = std::ranges::all_of(digests, [](Digest& digest) {
            return HashAlgo::equal(toLower(digest.recorded->algorithm), digest.recorded->value,
                                   digest.running->value());
        });
        if (equal)
            ++result_.ok;
        else
            result_.changed.push_back(expected.path);
    }

    VerifyResult& result_;
    const VerifyTask& task_;
    const std::function<bool()>& isThere_;
    const VerifyProgressHook& progress_;
    const IsCancelled& isCancelled_;
    PauseGate::Worker* pausing_;
    AlignedBuffer buffer_;
    ReadAhead reader_;
    std::vector<std::int64_t> sizes_; // of each file, as far as known before it is read
    std::int64_t total_ = 0;          // of what was read and of what is still to be read
    std::size_t index_ = 0;
};

} // namespace

bool FileChecks::run(VerifyResult& result, const VerifyTask& task, std::size_t memory,
                     const std::function<bool()>& isThere, const VerifyProgressHook& progress,
                     const IsCancelled& isCancelled, PauseGate::Worker* pausing) {
    return Reading(result, task, memory, isThere, progress, isCancelled, pausing).run();
}

} // namespace velmora
