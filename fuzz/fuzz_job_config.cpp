#include "Stable.h"
#include "records/JobConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::fuzz::writesStably<velmora::JobConfig>(velmora::fuzz::textOf(data, size));
    return 0;
}
