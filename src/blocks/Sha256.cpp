#include "blocks/Sha256.h"

#include "base/Hex.h"

namespace velmora {

std::string Sha256::hex() { return Hex::ofBytes(stream_.finish()); }

std::string Sha256::hexOf(std::string_view bytes) {
    Sha256 hash;
    hash.update(bytes);
    return hash.hex();
}

} // namespace velmora
