#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// How far a file has come on one destination.
enum class FileState : std::uint8_t { pending, written, verified, failed };
std::string_view name(FileState state) noexcept;

struct DestFileResult {
    FileState state = FileState::pending;
    std::optional<std::string> error;
    bool operator==(const DestFileResult&) const = default;
};

} // namespace velmora
