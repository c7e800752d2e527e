#include "OnDisk.h"
#include "Stable.h"
#include "memory/FileListStore.h"
#include "memory/Gzip.h"

// The gzip frame as it comes, and the lines inside a good one: what reads is written and read the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    constexpr std::size_t limit = 1 << 20;
    const std::string_view text = fuzz::textOf(data, size);
    if (const auto inside = Gzip::decompress(text, limit); inside && inside->size() > limit)
        std::abort();
    const std::string frame = Gzip::compress(text);
    if (Gzip::decompress(frame, size) != text || (size > 0 && Gzip::decompress(frame, size - 1)))
        std::abort();
    const std::string path = fuzz::onDisk("list.gz", reinterpret_cast<const std::uint8_t*>(frame.data()), frame.size());
    const auto files = FileListStore::read(path);
    if (!files)
        return 0;
    FileListStore::write(path, *files);
    const auto again = FileListStore::read(path);
    if (!again || again->size() != files->size())
        std::abort();
    for (std::size_t i = 0; i < files->size(); ++i)
        if ((*again)[i].relPath != (*files)[i].relPath || (*again)[i].size != (*files)[i].size)
            std::abort();
    return 0;
}
