#include "verify/RangeServer.h"

#include "base/Counter.h"
#include "base/Flag.h"
#include "base/Hex.h"
#include "base/Mutex.h"
#include "base/ThreadName.h"
#include "platform/LoopbackSocket.h"
#include "platform/RandomBytes.h"
#include "verify/HttpHead.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <map>
#include <set>
#include <utility>
#include <vector>

namespace velmora {

namespace {

constexpr std::size_t maxConnections = 8;
constexpr int backlog = 16;
constexpr int sendBufferBytes = 65536;
constexpr std::size_t bodyChunk = 262144;
constexpr std::size_t receivedAtOnce = 4096;

template <std::size_t bytes>
std::string randomDigits() {
    std::array<std::byte, bytes> random{};
    fillRandom(random);
    return Hex::ofBytes(random);
}

} // namespace

// What the connections share. The lock is never held while a source is read or a socket is touched.
class RangeServer::Service : public std::enable_shared_from_this<Service> {
public:
    explicit Service(Limits limits) : listener_(backlog), limits_(limits) {}

    void acceptLoop();
    std::string add(std::shared_ptr<TapSource> source, std::string_view name) EXCLUDES(lock_);
    void remove(const std::string& url) EXCLUDES(lock_);
    std::optional<std::int64_t> activity(const std::string& url) const EXCLUDES(lock_);
    bool close() EXCLUDES(lock_); // false: it was closed before
    std::uint16_t port() const noexcept { return listener_.port(); }
    std::size_t clients() const EXCLUDES(lock_);

    Counter bytesSent;
    Counter requests;

private:
    using Connection = std::shared_ptr<LoopbackConnection>;
    struct Entry {
        std::shared_ptr<TapSource> source;
        Counter sent; // bytes of bodies
    };

    void admit(const Connection& connection) EXCLUDES(lock_);
    void serve(LoopbackConnection& connection) EXCLUDES(lock_);
    std::optional<std::string> nextHead(LoopbackConnection& connection, HttpHead::Inbox& inbox) const;
    bool answer(LoopbackConnection& connection, std::string_view head, std::span<std::byte> memory) EXCLUDES(lock_);
    bool sendBody(LoopbackConnection& connection, Entry& entry, ByteRange range, std::span<std::byte> memory);
    std::shared_ptr<Entry> find(std::string_view id) const EXCLUDES(lock_);

    LoopbackListener listener_;
    const Limits limits_;
    const std::string token_ = randomDigits<16>();
    Flag closed_; // raised under the lock
    mutable Mutex lock_;
    std::map<std::string, std::shared_ptr<Entry>, std::less<>> files_ GUARDED_BY(lock_);
    std::set<Connection> clients_ GUARDED_BY(lock_);
};

void RangeServer::Service::acceptLoop() {
    nameThisThread("offload.tap.accept");
    try {
        while (const Connection connection = listener_.accept())
            admit(connection);
    } catch (const std::exception&) { // no memory for one more
        listener_.shutDown();
    }
}

// A connection that is not admitted is closed when the caller lets go of it.
void RangeServer::Service::admit(const Connection& connection) {
    {
        const MutexLock hold(lock_);
        if (closed_.isSet() || clients_.size() >= maxConnections)
            return;
        clients_.insert(connection);
    }
    const auto run = [](const std::shared_ptr<Service>& self, const Connection& mine) {
        nameThisThread("offload.tap.conn");
        try {
            self->serve(*mine);
        } catch (const std::exception&) { // no memory, or the socket does not do as it is told: the connection ends
        }
        const MutexLock hold(self->lock_);
        self->clients_.erase(mine);
    };
    try {
        std::thread(run, shared_from_this(), connection).detach();
    } catch (const std::exception&) { // no more threads
        const MutexLock hold(lock_);
        clients_.erase(connection);
    }
}

void RangeServer::Service::serve(LoopbackConnection& connection) {
    connection.prepare(sendBufferBytes, limits_.sendTimeout);
    std::vector<std::byte> memory(bodyChunk);
    HttpHead::Inbox inbox;
    while (!closed_.isSet()) {
        const auto head = nextHead(connection, inbox);
        if (!head)
            return;
        requests.add(1);
        if (!answer(connection, *head, memory))
            return;
    }
}

std::optional<std::string> RangeServer::Service::nextHead(LoopbackConnection& connection,
                                                          HttpHead::Inbox& inbox) const {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + limits_.headTimeout;
    std::array<std::byte, receivedAtOnce> bytes;
    while (true) {
        auto head = inbox.next();
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
        if (head || inbox.isBroken() || left.count() < 0)
            return head;
        const std::size_t got = connection.receive(bytes, left);
        if (got == 0)
            return std::nullopt;
        inbox.append({reinterpret_cast<const char*>(bytes.data()), got});
    }
}

bool RangeServer::Service::answer(LoopbackConnection& connection, std::string_view head, std::span<std::byte> memory) {
    std::shared_ptr<Entry> entry;
    const HttpHead::Answer answer = HttpHead::answer(head, {port(), token_}, [&](std::string_view id) {
        entry = find(id);
        return entry ? std::optional(entry->source->length()) : std::nullopt;
    });
    if (!connection.sendAll(std::as_bytes(std::span(answer.head))))
        return false;
    return (answer.body.length == 0 || sendBody(connection, *entry, answer.body, memory)) && answer.keepsOpen;
}

// Ends the connection early when the source has no more: the other side sees a body that is too short.
bool RangeServer::Service::sendBody(LoopbackConnection& connection, Entry& entry, ByteRange range,
                                    std::span<std::byte> memory) {
    const std::int64_t end = range.offset + range.length;
    for (std::int64_t at = range.offset; at < end;) {
        if (closed_.isSet())
            return false;
        const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(std::ssize(memory), end - at));
        const std::size_t got = entry.source->read(at, memory.first(wanted));
        if (got == 0 || !connection.sendAll(memory.first(got)))
            return false;
        at += static_cast<std::int64_t>(got);
        bytesSent.add(static_cast<std::int64_t>(got));
        entry.sent.add(static_cast<std::int64_t>(got));
    }
    return true;
}

std::string RangeServer::Service::add(std::shared_ptr<TapSource> source, std::string_view name) {
    const std::string id = randomDigits<8>();
    auto entry = std::make_shared<Entry>();
    entry->source = std::move(source);
    {
        const MutexLock hold(lock_);
        if (!closed_.isSet())
            files_[id] = std::move(entry);
    }
    return fmt::format("http://127.0.0.1:{}/{}/{}/{}", port(), token_, id, HttpHead::urlName(name));
}

void RangeServer::Service::remove(const std::string& url) {
    std::shared_ptr<Entry> entry; // its source goes outside the lock
    const auto id = HttpHead::idOf(url);
    const MutexLock hold(lock_);
    if (const auto found = id ? files_.find(*id) : files_.end(); found != files_.end()) {
        entry = std::move(found->second);
        files_.erase(found);
    }
}

std::shared_ptr<RangeServer::Service::Entry> RangeServer::Service::find(std::string_view id) const {
    const MutexLock hold(lock_);
    const auto found = files_.find(id);
    return found == files_.end() ? nullptr : found->second;
}

std::optional<std::int64_t> RangeServer::Service::activity(const std::string& url) const {
    const auto id = HttpHead::idOf(url);
    const auto entry = id ? find(*id) : nullptr;
    return entry ? std::optional(entry->sent.value() + entry->source->fromDisk()) : std::nullopt;
}

bool RangeServer::Service::close() {
    decltype(files_) files; // their sources go outside the lock
    std::set<Connection> clients;
    {
        const MutexLock hold(lock_);
        if (closed_.isSet())
            return false;
        closed_.set();
        files.swap(files_);
        clients = clients_;
    }
    listener_.shutDown();
    for (const Connection& client : clients)
        client->shutDown();
    return true;
}

std::size_t RangeServer::Service::clients() const {
    const MutexLock hold(lock_);
    return clients_.size();
}

RangeServer::RangeServer() : RangeServer(Limits{}) {}

RangeServer::RangeServer(Limits limits)
    : service_(std::make_shared<Service>(limits)), acceptThread_([service = service_] { service->acceptLoop(); }) {}

RangeServer::~RangeServer() { close(); }

std::string RangeServer::registerSource(std::shared_ptr<TapSource> source, std::string_view name) {
    return service_->add(std::move(source), name);
}

void RangeServer::unregister(const std::string& url) { service_->remove(url); }

std::optional<std::int64_t> RangeServer::activity(const std::string& url) const { return service_->activity(url); }

void RangeServer::close() {
    if (service_->close())
        acceptThread_.join();
}

std::uint16_t RangeServer::port() const noexcept { return service_->port(); }
std::int64_t RangeServer::bytesSent() const { return service_->bytesSent.value(); }
std::int64_t RangeServer::requests() const { return service_->requests.value(); }
std::size_t RangeServer::clients() const { return service_->clients(); }

} // namespace velmora
