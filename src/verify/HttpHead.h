#pragma once

#include "blocks/BlockOutcome.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The heads of HTTP/1.1, as far as a server of ranges needs them. Nothing here knows sockets or files; any bytes may
// come in, and none of it throws but std::bad_alloc.
namespace HttpHead {

inline constexpr std::size_t maxBytes = 8192; // of one head, its end included

// What has been received and not yet answered.
class Inbox {
public:
    void append(std::string_view bytes) { data_ += bytes; }
    // The next whole head with its end (CR LF CR LF); what follows it stays for the next one. None: more has to come,
    // unless `isBroken`.
    std::optional<std::string> next();
    bool isBroken() const noexcept { return broken_; } // too long, or not ASCII: not worth an answer

private:
    std::string data_;
    bool broken_ = false;
};

// The port and the token that every request must name.
struct Address {
    std::uint16_t port = 0;
    std::string token; // in lower-case hexadecimal digits
};

struct Answer {
    int status = 0;
    std::string head;       // ready to be sent
    ByteRange body;         // what follows the head; empty for HEAD and for every refusal
    bool keepsOpen = false; // the connection stays open for another request
};

// Judges one whole head. Asks `lengthOf` at most once, for the length of the source that the request names.
Answer answer(std::string_view head, const Address& address,
              const std::function<std::optional<std::int64_t>(std::string_view id)>& lengthOf);

// The bytes that the value of a Range header asks for; none when the request cannot be satisfied.
std::optional<ByteRange> parseRange(std::string_view value, std::int64_t length);
// The id in "/{token}/{id}/{name}"; none when it has another shape or another token. The token is compared over all
// its bytes, so that the time taken tells nothing about it.
std::optional<std::string_view> parseTarget(std::string_view target, std::string_view token);

// The last component of an address: the file's name with all but ASCII letters, digits, "-", "." and "_" as "_".
std::string urlName(std::string_view path);
// The third component of an address, which is the id; none when there is no third.
std::optional<std::string_view> idOf(std::string_view url);

} // namespace HttpHead

} // namespace velmora
