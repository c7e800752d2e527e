#pragma once

#include "blocks/HashStreams.h"

#include <string>
#include <string_view>

namespace velmora {

// SHA-256 (FIPS 180-4) as text, for names and fingerprints; file contents are hashed by MultiHasher. Not thread-safe.
class Sha256 {
public:
    void update(std::string_view bytes) noexcept { stream_.update(bytes.data(), bytes.size()); }
    std::string hex(); // 64 lower-case digits; called once

    static std::string hexOf(std::string_view bytes);

private:
    CryptoStream stream_{CryptoStream::Kind::sha256};
};

} // namespace velmora
