#include "proxies/ArriRawBackend.h"
#include "proxies/BrawBackend.h"
#include "proxies/CanonRawBackend.h"
#include "proxies/R3DBackend.h"

namespace velmora {

std::vector<std::unique_ptr<RawBackend>> RawBackends::all() {
    std::vector<std::unique_ptr<RawBackend>> backends;
    backends.push_back(std::make_unique<BRAWBackend>());
    backends.push_back(std::make_unique<R3DBackend>());
    backends.push_back(std::make_unique<ARRIRAWBackend>());
    backends.push_back(std::make_unique<CanonRawBackend>());
    return backends;
}

} // namespace velmora
