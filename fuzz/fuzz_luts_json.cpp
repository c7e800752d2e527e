#include "Stable.h"
#include "proxies/LutCatalog.h"

// The list of built-in LUTs: reading never throws, and no file of it lies outside its folder.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    for (const BuiltinLut& lut : LutCatalog::parse(fuzz::textOf(data, size), "/luts").luts)
        if (!lut.path.starts_with("/luts/") || lut.path.find('/', 6) != std::string::npos || lut.path == "/luts/..")
            std::abort();
    return 0;
}
