#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Paths and names are bytes that usually, but not always, are UTF-8. None of these functions throws on invalid bytes.

// The key under which a path is compared: Unicode lower case, code point by code point; invalid bytes are kept.
std::string pathKey(std::string_view path);
// Two names with the same collision key may be one name on a disk that folds case or normalises Unicode.
std::string collisionKey(std::string_view path);

std::string toLower(std::string_view text); // Unicode, as pathKey
std::string toUpper(std::string_view text);
bool equalIgnoringCase(std::string_view a, std::string_view b);

// Without white space and line ends (Unicode) at both ends.
std::string trim(std::string_view text);

bool isValidUtf8(std::string_view text);
// True when every record can hold the name: valid UTF-8, not empty, no control character and no code point that XML
// has no way to write.
bool isRecordableName(std::string_view name);
// Bytes for a person's eye: invalid and control bytes as "\xNN", a backslash doubled, the rest as it is.
std::string escapeForDisplay(std::string_view bytes);
// Valid UTF-8 whatever comes in: each invalid byte becomes U+FFFD.
std::string withValidUtf8(std::string_view text);
// The longest beginning of at most `bytes` bytes that does not cut a UTF-8 sequence.
std::string_view cutUtf8(std::string_view text, std::size_t bytes);

// Order of the texts as UTF-16 code units (it differs from byte order for U+E000 … U+FFFF against what lies above).
int compareUtf16(std::string_view a, std::string_view b);
// The order of a file browser: digit runs as numbers, case ignored. 0 means equal for the eye, not byte-equal.
int compareNatural(std::string_view a, std::string_view b);

// Pieces between separators; `keepEmpty` keeps empty ones.
std::vector<std::string_view> split(std::string_view text, char separator, bool keepEmpty = true);
std::string join(const std::vector<std::string>& parts, std::string_view separator);
std::string replaceAll(std::string_view text, std::string_view what, std::string_view with);

// "0 B", "999 B", "12 kB", "3.5 MB", "1.25 GB", "2.00 TB": powers of 1000, as disks and cards are sold.
std::string formatBytes(std::int64_t bytes);
// The same in at most three digits: "3.5 MB", "1.3 GB", "256 GB".
std::string formatBytesShort(std::int64_t bytes);

// The word for n things.
inline std::string_view plural(std::int64_t n, std::string_view one, std::string_view many) {
    return n == 1 ? one : many;
}
// "1 file", "3 files".
std::string counted(std::int64_t n, std::string_view one, std::string_view many);
inline std::string countedFiles(std::int64_t n) { return counted(n, "file", "files"); }

} // namespace velmora
