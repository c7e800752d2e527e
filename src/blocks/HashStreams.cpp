#include "blocks/HashStreams.h"

#include "base/Errors.h"

#include <fmt/format.h>
#include <new>
#include <openssl/evp.h>
#include <xxhash.h>
#if defined(__x86_64__) || defined(__i386__)
#include <xxh_x86dispatch.h> // takes the widest registers that the processor has, chosen at run time
#endif

namespace velmora {

namespace {

template <class State>
State* orDie(State* state) {
    if (state == nullptr) {
        throw std::bad_alloc();
    }
    return state;
}

// It refuses only when the library was built without the digest. Then no run can work.
void mustWork(int answer) {
    if (answer != 1) {
        throw ToolError("libcrypto", 0, "a digest is not available");
    }
}

const EVP_MD* digestOf(CryptoStream::Kind kind) {
    switch (kind) {
    case CryptoStream::Kind::md5:
        return EVP_md5();
    case CryptoStream::Kind::sha1:
        return EVP_sha1();
    case CryptoStream::Kind::sha256:
        return EVP_sha256();
    case CryptoStream::Kind::sha512:
        return EVP_sha512();
    }
    return nullptr;
}

} // namespace

XXH64Stream::XXH64Stream() noexcept : state_(orDie(XXH64_createState())) { reset(); }

void XXH64Stream::reset() noexcept { XXH64_reset(state_.get(), 0); }

void XXH64Stream::update(const void* bytes, std::size_t count) noexcept { XXH64_update(state_.get(), bytes, count); }

std::uint64_t XXH64Stream::digest() const noexcept { return XXH64_digest(state_.get()); }

void XXH64Stream::Free::operator()(XXH64_state_s* state) const noexcept { XXH64_freeState(state); }

void XXH3Free::operator()(XXH3_state_s* state) const noexcept { XXH3_freeState(state); }

XXH3Stream::XXH3Stream() noexcept : state_(orDie(XXH3_createState())) { reset(); }

void XXH3Stream::reset() noexcept { XXH3_64bits_reset(state_.get()); }

void XXH3Stream::update(const void* bytes, std::size_t count) noexcept {
    XXH3_64bits_update(state_.get(), bytes, count);
}

std::uint64_t XXH3Stream::digest() const noexcept { return XXH3_64bits_digest(state_.get()); }

XXH128Stream::XXH128Stream() noexcept : state_(orDie(XXH3_createState())) { reset(); }

void XXH128Stream::reset() noexcept { XXH3_128bits_reset(state_.get()); }

void XXH128Stream::update(const void* bytes, std::size_t count) noexcept {
    XXH3_128bits_update(state_.get(), bytes, count);
}

std::string XXH128Stream::hex() const {
    const XXH128_hash_t hash = XXH3_128bits_digest(state_.get());
    return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

CryptoStream::CryptoStream(Kind kind) noexcept : context_(orDie(EVP_MD_CTX_new())) {
    mustWork(EVP_DigestInit_ex(context_.get(), digestOf(kind), nullptr));
}

void CryptoStream::update(const void* bytes, std::size_t count) noexcept {
    mustWork(EVP_DigestUpdate(context_.get(), bytes, count));
}

std::vector<std::uint8_t> CryptoStream::finish() {
    std::vector<std::uint8_t> digest(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    mustWork(EVP_DigestFinal_ex(context_.get(), digest.data(), &length));
    digest.resize(length);
    return digest;
}

void CryptoStream::Free::operator()(evp_md_ctx_st* context) const noexcept { EVP_MD_CTX_free(context); }

std::uint64_t blockHash(const void* bytes, std::size_t count) noexcept { return XXH3_64bits(bytes, count); }

} // namespace velmora
