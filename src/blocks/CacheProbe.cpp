#include "blocks/CacheProbe.h"

#include "base/Errors.h"
#include "base/Msg.h"
#include "platform/File.h"
#include "platform/IO.h"
#include "platform/PageCache.h"
#include "platform/ProcessId.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <random>

namespace velmora {

namespace {

constexpr std::size_t probeBytes = 0x400000;
constexpr std::size_t cachedBytes = 0x100000;

// Eight random digits, so that two probes hardly ever choose the same name.
std::string fragment() {
    std::random_device random;
    return fmt::format("{:08x}", random());
}

std::string checkFailed(std::string_view error) {
    return fmt::format("cannot check reads past the cache ({}) — verified by reading back", error);
}

// Removes its file however the check ends.
class TestFile {
public:
    explicit TestFile(std::string path) : path_(std::move(path)) {}
    ~TestFile() {
        try {
            IO::unlink(path_);
        } catch (const std::exception&) { // it was never made, or the disk is gone
        }
    }
    TestFile(const TestFile&) = delete;
    TestFile& operator=(const TestFile&) = delete;
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

void writePastCache(const std::string& path) {
    AlignedBuffer buffer(probeBytes);
    std::random_device seed;
    std::mt19937_64 random(seed());
    for (std::size_t at = 0; at < buffer.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = random(); // a disk that stores repetitions in no space would not really write
        std::copy_n(reinterpret_cast<const std::byte*>(&word), sizeof word, buffer.data() + at);
    }
    UncachedWriter writer(path, UncachedWriter::Open::createOrTruncate, CacheMode::direct);
    writer.writeAt(buffer.span(), 0);
    writer.flush();
    writer.close();
}

bool findOutBlind() {
    try {
        const TestFile file(fmt::format("{}/.offload-mincore-{}-{}", std::filesystem::temp_directory_path().string(),
                                        processId(), fragment()));
        std::ofstream out(file.path(), std::ios::binary);
        out << std::string(cachedBytes, '\1');
        out.close();
        const auto pages = CacheProbe::residentPages(file.path());
        return !pages || pages->resident == 0; // it has just gone through the cache
    } catch (const std::exception&) {
        return true;
    }
}

} // namespace

std::optional<CacheProbe::Pages> CacheProbe::residentPages(const std::string& path) {
    const auto pages = PageCache::residentPages(path);
    return pages ? std::optional(Pages{pages->first, pages->second}) : std::nullopt;
}

bool CacheProbe::evict(const std::string& path) try { return PageCache::evict(path); } catch (const IOError&) {
    return false;
}

bool CacheProbe::readsFromDisk(const std::string& path) try { return driveOut(path); } catch (const IOError&) {
    return false;
}

bool CacheProbe::driveOut(const std::string& path) {
    auto pages = residentPages(path);
    if (pages && pages->resident > 0) {
        PageCache::evict(path);
        pages = residentPages(path);
    }
    return pages && pages->resident == 0;
}

bool CacheProbe::blind() {
    static const bool answer = findOutBlind();
    return answer;
}

std::optional<std::string> CacheProbe::problem(const std::string& cardPath, const VolumeFacts::System& system) {
    if (blind()) {
        return std::string(VIPMsg::cacheBlind);
    }
    if (const auto mount = VolumeFacts::mount(cardPath, system); mount && !mount->local) {
        return "network destination — verified by reading back";
    }
    try {
        const std::string folder = cardPath + "/_REPORT";
        IO::mkdirs(folder);
        const TestFile file(fmt::format("{}/.offload-cachecheck-{}-{}", folder, processId(), fragment()));
        writePastCache(file.path());
        const auto pages = residentPages(file.path());
        if (!pages) {
            return checkFailed("mincore");
        }
        if (pages->resident > 0) {
            return "the check of reads past the cache did not pass — verified by reading back";
        }
    } catch (const std::exception& error) {
        return checkFailed(error.what());
    }
    return std::nullopt;
}

} // namespace velmora
