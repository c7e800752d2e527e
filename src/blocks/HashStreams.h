#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct XXH64_state_s;
struct XXH3_state_s;
struct evp_md_ctx_st;

namespace velmora {

// The running digests of the libraries, each with one owner. None is thread-safe. A state that cannot be allocated
// ends the program: the constructors are noexcept on purpose, for a copy that cannot hash must not go on.

// xxHash64 with seed 0.
class XXH64Stream {
public:
    XXH64Stream() noexcept;
    void reset() noexcept;
    void update(const void* bytes, std::size_t count) noexcept;
    std::uint64_t digest() const noexcept; // of all bytes so far; the stream may go on

private:
    struct Free {
        void operator()(XXH64_state_s* state) const noexcept;
    };
    std::unique_ptr<XXH64_state_s, Free> state_;
};

struct XXH3Free {
    void operator()(XXH3_state_s* state) const noexcept;
};

// XXH3 with 64 bits and the default secret: the hash of a block.
class XXH3Stream {
public:
    XXH3Stream() noexcept;
    void reset() noexcept;
    void update(const void* bytes, std::size_t count) noexcept;
    std::uint64_t digest() const noexcept;

private:
    std::unique_ptr<XXH3_state_s, XXH3Free> state_;
};

// XXH3 with 128 bits and the default secret.
class XXH128Stream {
public:
    XXH128Stream() noexcept;
    void reset() noexcept;
    void update(const void* bytes, std::size_t count) noexcept;
    std::string hex() const; // 32 digits, the high half first

private:
    std::unique_ptr<XXH3_state_s, XXH3Free> state_;
};

// MD5, SHA-1, SHA-256 and SHA-512 of OpenSSL.
class CryptoStream {
public:
    enum class Kind { md5, sha1, sha256, sha512 };
    explicit CryptoStream(Kind kind) noexcept;
    void update(const void* bytes, std::size_t count) noexcept;
    std::vector<std::uint8_t> finish(); // once; the stream is spent

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
};

// XXH3 64-bit of one stretch of bytes. This is the hash of a block, wherever one is named.
std::uint64_t blockHash(const void* bytes, std::size_t count) noexcept;

} // namespace velmora
