#include "Stable.h"
#include "base/Text.h"
#include "blocks/BlockReads.h"
#include "blocks/BlockVerifier.h"
#include "blocks/ManifestFile.h"

// Lines of a manifest from a disk: what reads writes stably, no checkpoint has a hole, and whatever claims to be a
// list of blocks can be verified against without harm.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    std::vector<ManifestRecord> records;
    for (const std::string_view line : split(fuzz::textOf(data, size), '\n')) {
        const auto record = ManifestRecord::parse(line);
        if (!record)
            continue;
        const std::string written = record->line();
        const auto again = ManifestRecord::parse(written);
        if (!again || again->line() != written || written.find('\n') != std::string::npos)
            std::abort();
        records.push_back(*record);
    }
    for (const ManifestRecord& record : records) {
        const auto parts = ManifestFile::parts(records, record.gen);
        if (const auto part = parts.find(pathKey(record.path)); part != parts.end() && part->second.blockSize <= 0)
            std::abort();
        auto manifest = record.toManifest();
        if (!manifest)
            continue;
        BlockVerifier verifier(std::move(*manifest));
        verifier.feed(record.size / 2, std::as_bytes(std::span(record.path)));
        verifier.feed(0, std::as_bytes(std::span(record.path)));
        verifier.observeLength(record.size);
        (void)verifier.missingRanges();
        (void)BlockReads::result(verifier, verifier.finish());
    }
    (void)ManifestFile::files(records, 1);
    return 0;
}
