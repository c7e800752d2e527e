#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Which digests of a whole file a job promises. xxh64 is always among them.
class HashKinds {
public:
    static const HashKinds xxh64;
    static const HashKinds md5;
    static const HashKinds both;

    constexpr explicit HashKinds(std::int64_t raw = 1) noexcept : raw_(raw) {}
    constexpr std::int64_t raw() const noexcept { return raw_; }
    constexpr bool hasMd5() const noexcept { return (raw_ & 2) != 0; }
    std::vector<std::string> names() const;
    // The setting is compared as written: only "both" adds MD5.
    static HashKinds fromSetting(const std::optional<std::string>& setting);
    // Names of an earlier record, in any case.
    static HashKinds from(const std::optional<std::vector<std::string>>& names);
    constexpr bool operator==(const HashKinds&) const noexcept = default;

private:
    std::int64_t raw_;
};

inline constexpr HashKinds HashKinds::xxh64{1};
inline constexpr HashKinds HashKinds::md5{2};
inline constexpr HashKinds HashKinds::both{3};

// Digests of one whole file.
struct FileHashes {
    std::optional<std::uint64_t> xxh64;
    std::optional<std::array<unsigned char, 16>> md5;
    std::optional<std::string> xxh128; // 32 hexadecimal digits

    std::optional<std::string> xxh64Hex() const;
    std::optional<std::string> md5Hex() const;
    bool operator==(const FileHashes&) const = default;
};

} // namespace velmora
