#include "Stable.h"
#include "disks/BootSector.h"

// The first bytes of any medium: a serial needs a whole boot record, and its text reads back as the number it is.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const auto serial = BootSector::serial(std::as_bytes(std::span(data, size)));
    if (serial && (size < 112 || BootSector::parse(BootSector::text(serial->value)) != serial->value))
        std::abort();
    const std::string text(fuzz::textOf(data, size));
    if (const auto value = BootSector::parse(text); value && BootSector::parse(BootSector::text(*value)) != value)
        std::abort();
    return 0;
}
