#include "Stable.h"
#include "verify/HttpHead.h"

#include <algorithm>

// Anything that a program may send to the port, cut into two pieces: each head gets a whole answer, and only who knows
// the token gets bytes, and only bytes that the file has.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const std::string text(fuzz::textOf(data, size));
    const HttpHead::Address address{5000, "00112233445566778899aabbccddeeff"};
    const std::int64_t length = size % 3 == 0 ? 0 : static_cast<std::int64_t>(size);
    const auto check = [](bool holds) {
        if (!holds)
            std::abort();
    };
    HttpHead::Inbox inbox;
    for (const std::string& piece : {text.substr(0, size / 2), text.substr(size / 2)}) {
        inbox.append(piece);
        while (const auto head = inbox.next()) {
            check(head->size() <= HttpHead::maxBytes && head->ends_with("\r\n\r\n"));
            std::string asked;
            const HttpHead::Answer answer = HttpHead::answer(*head, address, [&](std::string_view id) {
                asked = id;
                return std::optional(length);
            });
            check(answer.head.starts_with("HTTP/1.1 ") && answer.head.find("\r\n\r\n") + 4 == answer.head.size());
            check(answer.body.offset >= 0 && answer.body.length >= 0 &&
                  answer.body.offset + answer.body.length <= length);
            check(answer.status < 300 ? head->find("/" + address.token + "/" + asked + "/") != std::string::npos
                                      : answer.body.length == 0);
            check(!answer.keepsOpen || (answer.status != 400 && answer.status != 405));
        }
    }
    if (const auto range = HttpHead::parseRange(text, length))
        check(range->offset >= 0 && range->length > 0 && range->length <= length - range->offset);
    check(std::ranges::all_of(HttpHead::urlName(text), [](char c) {
        return std::string_view("-._").find(c) != std::string_view::npos || (c >= '0' && c <= '9') ||
               (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    }));
    check(HttpHead::idOf("http://127.0.0.1:5000/t/0a/" + HttpHead::urlName(text)) == "0a");
    return 0;
}
