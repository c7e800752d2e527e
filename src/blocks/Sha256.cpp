#include "blocks/Sha256.h"

#include <openssl/evp.h>

#include <array>
#include <new>

namespace velmora {

struct Sha256::State {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~State() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
    if (!state_->context || EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
}

Sha256::~Sha256() = default;

void Sha256::update(std::string_view bytes) {
    if (EVP_DigestUpdate(state_->context, bytes.data(), bytes.size()) != 1)
        throw std::bad_alloc();
}

std::string Sha256::hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(state_->context, digest.data(), &length) != 1)
        throw std::bad_alloc();
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(std::size_t{length} * 2);
    for (unsigned int i = 0; i < length; ++i) {
        text.push_back(digits[digest[i] >> 4]);
        text.push_back(digits[digest[i] & 15]);
    }
    return text;
}

std::string Sha256::hexOf(std::string_view bytes) {
    Sha256 hash;
    hash.update(bytes);
    return hash.hex();
}

} // namespace velmora
