#include "Stable.h"
#include "clips/SonyXML.h"
#include "records/Timecode.h"

// A sidecar from a card: nothing is thrown, and a rate that was understood is understood again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const SonyXML::Sidecar sidecar = SonyXML::parse(fuzz::textOf(data, size));
    if (sidecar.captureFrameRate && !Timecode::fps(*sidecar.captureFrameRate))
        std::abort();
    return 0;
}
