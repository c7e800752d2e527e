#pragma once

#include "verify/TapSource.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace velmora {

// Hands out the bytes of taps to programs on this machine: HTTP/1.1 on 127.0.0.1, GET and HEAD with one range, up to
// eight connections. Whoever does not know the address of a tap, random as it is, gets nothing. Requests only choose
// among the sources that were entered: no text of theirs reaches a path. Any thread.
class RangeServer {
public:
    struct Limits {
        std::chrono::milliseconds headTimeout{30'000};  // for one request to arrive
        std::chrono::milliseconds sendTimeout{120'000}; // for the other side to take the next bytes
    };

    RangeServer(); // starts listening; throws IOError("socket" or "bind", "127.0.0.1")
    explicit RangeServer(Limits limits);
    ~RangeServer(); // closes
    RangeServer(const RangeServer&) = delete;
    RangeServer& operator=(const RangeServer&) = delete;

    // The address "http://127.0.0.1:{port}/{token}/{id}/{name}". `name` is the file's name; what does not belong into
    // an address becomes "_".
    std::string registerSource(std::shared_ptr<TapSource> source, std::string_view name);
    // No new requests are answered. One that is being answered goes on until its source says stop.
    void unregister(const std::string& url);
    // A number that grows whenever this source reads from its disk or sends to a client. None for an unknown address.
    std::optional<std::int64_t> activity(const std::string& url) const;

    // Ends every connection. Does not wait for one that waits for a disk.
    void close();

    std::uint16_t port() const noexcept;
    std::int64_t bytesSent() const; // of bodies
    std::int64_t requests() const;
    std::size_t clients() const; // connections now

private:
    class Service;
    const std::shared_ptr<Service> service_; // shared with the connections, which may wait for a disk
    std::thread acceptThread_;
};

} // namespace velmora
