#include "OnDisk.h"
#include "memory/HistoryStore.h"

#include <algorithm>

// A whole history.json: what is damaged is set aside, what is left is in order, and no entry leads to a file elsewhere.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const std::string path = fuzz::onDisk("history.json", data, size);
    HistoryStore store(fuzz::folder(), 1.0);
    const std::vector<HistoryEntry> entries = store.load();
    if (!std::is_sorted(entries.begin(), entries.end(),
                        [](const auto& a, const auto& b) { return a.finished > b.finished; }))
        std::abort();
    for (const HistoryEntry& entry : entries) {
        if (entry.id.find_first_of("/.") != std::string::npos)
            std::abort();
        (void)store.readFileList(entry);
    }
    const bool setAside = !std::filesystem::exists(path);
    if (setAside && !entries.empty())
        std::abort();
    for (const auto& file : std::filesystem::directory_iterator(fuzz::folder()))
        if (file.path().filename().string().starts_with("history.json"))
            std::filesystem::remove(file.path());
    return 0;
}
