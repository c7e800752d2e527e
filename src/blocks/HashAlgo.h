#pragma once

#include "blocks/HashStreams.h"

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace velmora {

// A digest that is made by name and rendered as text.
class RunningHash {
public:
    virtual ~RunningHash() = default;
    virtual void update(const std::byte* bytes, std::size_t count) = 0;
    virtual std::string value() = 0; // called once
};

// The digests that records of a backup may hold, by the names that they go by there.
namespace HashAlgo {

inline constexpr std::array<std::string_view, 6> known{"xxh64", "md5", "sha1", "xxh3", "xxh128", "c4"};

std::unique_ptr<RunningHash> make(std::string_view name); // as written in `known`; null for any other name
std::string label(std::string_view name);                 // "xxHash64", "MD5", …; an unknown name stands for itself
// C4 identifiers differ by case; every other digest is hexadecimal and is compared without case.
bool equal(std::string_view algorithm, std::string_view a, std::string_view b);

class X64 final : public RunningHash {
public:
    void update(const std::byte* bytes, std::size_t count) override;
    std::string value() override;

private:
    XXH64Stream s_;
};

class X3 final : public RunningHash {
public:
    void update(const std::byte* bytes, std::size_t count) override;
    std::string value() override;

private:
    XXH3Stream s_;
};

class X128 final : public RunningHash {
public:
    void update(const std::byte* bytes, std::size_t count) override;
    std::string value() override;

private:
    XXH128Stream s_;
};

// A digest of the crypto library; `finish` turns it into its text.
class Kit final : public RunningHash {
public:
    using Finish = std::function<std::string(std::span<const std::uint8_t>)>;
    Kit(CryptoStream::Kind kind, Finish finish);
    void update(const std::byte* bytes, std::size_t count) override;
    std::string value() override;

private:
    CryptoStream h_;
    Finish finish_;
};

} // namespace HashAlgo

} // namespace velmora
