#include "Stable.h"
#include "records/HistoryEntry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::fuzz::writesStably<velmora::HistoryEntry>(velmora::fuzz::textOf(data, size));
    return 0;
}
