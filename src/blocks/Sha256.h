#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace velmora {

// A running SHA-256 (FIPS 180-4), for names and fingerprints; file contents are hashed by MultiHasher. Not thread-safe.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(std::string_view bytes);
    std::string hex(); // 64 lower-case digits; called once

    static std::string hexOf(std::string_view bytes);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace velmora
