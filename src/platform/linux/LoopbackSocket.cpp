#include "platform/LoopbackSocket.h"

#include "platform/linux/Descriptor.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace velmora {

namespace {

constexpr const char* here = "127.0.0.1";

void setOption(int fd, int level, int name, const auto& value) {
    check(::setsockopt(fd, level, name, &value, sizeof value), "setsockopt", here);
}

timeval asTimeval(std::chrono::microseconds time) {
    constexpr std::int64_t second = 1'000'000;
    // 0 would mean without end.
    const std::int64_t microseconds = std::max<std::int64_t>(time.count(), 1000);
    return {.tv_sec = microseconds / second, .tv_usec = microseconds % second};
}

bool isFromHere(const sockaddr_in& peer) {
    return peer.sin_family == AF_INET && ::ntohl(peer.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

} // namespace

LoopbackConnection::~LoopbackConnection() { ::close(fd_); }

void LoopbackConnection::prepare(int sendBufferBytes, std::chrono::microseconds sendTimeout) {
    setOption(fd_, SOL_SOCKET, SO_SNDBUF, sendBufferBytes);
    setOption(fd_, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(fd_, SOL_SOCKET, SO_SNDTIMEO, asTimeval(sendTimeout));
}

std::size_t LoopbackConnection::receive(std::span<std::byte> to, std::chrono::microseconds timeout) noexcept {
    const timeval limit = asTimeval(timeout);
    if (::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return 0;
    const ssize_t got = retryInterrupted([&] { return ::recv(fd_, to.data(), to.size(), 0); });
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

bool LoopbackConnection::sendAll(std::span<const std::byte> bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t sent = retryInterrupted([&] { return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); });
        if (sent <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
    return true;
}

void LoopbackConnection::shutDown() noexcept { ::shutdown(fd_, SHUT_RDWR); }

LoopbackListener::LoopbackListener(int backlog) {
    Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    check(fd.get(), "socket", here);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const general = reinterpret_cast<sockaddr*>(&address);
    check(::bind(fd.get(), general, length), "bind", here);
    check(::listen(fd.get(), backlog), "bind", here);
    check(::getsockname(fd.get(), general, &length), "bind", here);
    port_ = ::ntohs(address.sin_port);
    fd_ = fd.release();
}

LoopbackListener::~LoopbackListener() { ::close(fd_); }

std::shared_ptr<LoopbackConnection> LoopbackListener::accept() {
    while (true) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        Descriptor fd(::accept4(fd_, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
        if (fd) {
            if (isFromHere(peer)) {
                auto connection = std::make_shared<LoopbackConnection>(fd.get());
                fd.release();
                return connection;
            }
        } else if (errno != EINTR && errno != ECONNABORTED) {
            shutDown(); // who comes now is told at once that nobody answers
            return nullptr;
        }
    }
}

void LoopbackListener::shutDown() noexcept { ::shutdown(fd_, SHUT_RDWR); }

} // namespace velmora
