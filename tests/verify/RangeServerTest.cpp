#include "verify/RangeServer.h"

#include "blocks/BlockReads.h"
#include "support/LoopImage.h"
#include "verify/Tapped.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <random>
#include <sys/socket.h>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using test::Tapped;

constexpr std::int64_t blockSize = 65536;

// Any program of this machine that has found the port.
class Client {
public:
    explicit Client(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        const timeval patience{20, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool send(std::string_view bytes) const { return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0; }
    // What comes until the other side closes, or until there is so much; "?" at its end when nothing happens.
    std::string receive(std::size_t most = std::string::npos) const {
        std::string got;
        char buffer[65536];
        while (got.size() < most) {
            const ssize_t n = ::recv(fd_, buffer, std::min(most - got.size(), sizeof buffer), 0);
            if (n <= 0)
                return n < 0 && errno == EAGAIN ? got + "?" : got;
            got.append(buffer, static_cast<std::size_t>(n));
        }
        return got;
    }

    bool connected = false;

private:
    int fd_;
};

bool eventually(const std::function<bool()>& holds) {
    for (int i = 0; i < 1000 && !holds(); ++i)
        std::this_thread::sleep_for(10ms);
    return holds();
}

class RangeServerTest : public testing::Test {
protected:
    test::TempFolder card;
    Tapped file{card.path(), std::size_t{20 * blockSize + 5}, blockSize};
    std::shared_ptr<TapFile> tap = file.open();
    RangeServer server{{.headTimeout = 500ms, .sendTimeout = 500ms}};
    std::string url = server.registerSource(tap, "A.mov");

    std::string request(const std::string& method, const std::string& more = "") const {
        return fmt::format("{} {} HTTP/1.1\r\nHost: 127.0.0.1:{}\r\n{}\r\n", method, url.substr(url.find('/', 7)),
                           server.port(), more);
    }
    // Whether somebody is served who comes now.
    bool serves() const {
        const Client client(server.port());
        client.send(request("GET", "Range: bytes=7-9\r\nConnection: close\r\n"));
        return client.receive().ends_with("\r\n\r\n" + file.content.substr(7, 3));
    }
};

TEST_F(RangeServerTest, AnswersOneRequestAfterAnotherAndVerifiesWhatItHandsOut) {
    EXPECT_THAT(url, testing::MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/[0-9a-f]{32}/[0-9a-f]{16}/A\\.mov"));
    EXPECT_EQ(server.activity(url), 0);
    const Client client(server.port());
    client.send(request("HEAD") + request("GET", "Range: bytes=65530-65539\r\n") +
                request("GET", "Range: bytes=-0\r\n") + request("GET", "Connection: close\r\n"));
    const std::string type = "\r\nContent-Type: application/octet-stream\r\nAccept-Ranges: bytes\r\nContent-Length: ";
    const std::string size = std::to_string(file.content.size());
    const std::string keep = "\r\nConnection: keep-alive\r\n\r\n";
    EXPECT_EQ(client.receive(), "HTTP/1.1 200 OK" + type + size + keep + "HTTP/1.1 206 Partial Content" + type +
                                    "10\r\nContent-Range: bytes 65530-65539/" + size + keep +
                                    file.content.substr(65530, 10) +
                                    "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" + size +
                                    "\r\nContent-Length: 0\r\n\r\n" + "HTTP/1.1 200 OK" + type + size +
                                    "\r\nConnection: close\r\n\r\n" + file.content);
    EXPECT_EQ(server.requests(), 4);
    EXPECT_TRUE(eventually([&] { return server.bytesSent() == tap->length() + 10; }));
    EXPECT_EQ(server.activity(url), server.bytesSent() + tap->fromDisk());
    EXPECT_EQ(tap->fromDisk(), tap->length()) << "read once";
    EXPECT_EQ(file.verifier->finish(), BlockOutcome::verified());

    const std::string other = server.registerSource(tap, "A.mov");
    server.unregister(url);
    EXPECT_EQ(server.activity(url), std::nullopt);
    EXPECT_FALSE(serves());
    url = other;
    EXPECT_TRUE(serves());
}

TEST_F(RangeServerTest, ClosesWithoutAWordOnWhoeverSendsNoHead) {
    for (const auto& [bytes, each] : std::vector<std::pair<std::string, std::size_t>>{
             {std::string(8193, 'a'), 8193}, {"GET \x80", 5}, {request("GET").substr(0, 30), 1}, {"", 1}}) {
        const Client client(server.port());
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t at = 0; at < bytes.size(); at += each) {
            client.send(bytes.substr(at, each));
            std::this_thread::sleep_for(20ms);
        }
        EXPECT_EQ(client.receive(), "");
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    }
    EXPECT_EQ(server.requests(), 0);
    EXPECT_TRUE(serves());
}

TEST_F(RangeServerTest, HoldsEightConnectionsAndNoneOfThemForGood) {
    const Tapped large(card / "large", std::size_t{8} << 20, 1 << 20);
    const std::string own = std::exchange(url, server.registerSource(large.open(), ""));
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<Client>(server.port()));
        clients.back()->send(request("GET")); // and nobody takes the answer
        EXPECT_THAT(clients.back()->receive(15), "HTTP/1.1 200 OK");
    }
    EXPECT_EQ(server.clients(), 8U);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(Client(server.port()).receive(), "");
    url = own;
    EXPECT_TRUE(eventually([&] { return server.clients() == 0; }));
    EXPECT_TRUE(serves());
}

TEST_F(RangeServerTest, EndsTheConnectionWhereATapEnds) {
    tap->dispose();
    const Client client(server.port());
    client.send(request("GET"));
    EXPECT_THAT(client.receive(), testing::EndsWith("\r\nConnection: keep-alive\r\n\r\n"));
}

TEST_F(RangeServerTest, ClosesItsPortAndEveryConnectionAndGivesNoneToAChild) {
    RangeServer patient; // for half a minute
    const Client idle(server.port()), busy(server.port()), waiting(patient.port());
    const Tapped large(card / "large", std::size_t{8} << 20, 1 << 20);
    url = server.registerSource(large.open(), "");
    busy.send(request("GET")); // more than anybody takes
    EXPECT_THAT(busy.receive(15), "HTTP/1.1 200 OK");
    EXPECT_TRUE(eventually([&] { return server.clients() == 2 && patient.clients() == 1; }));
    int sockets = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        if (const int fd = std::stoi(entry.path().filename()); std::filesystem::is_socket(entry.path())) {
            EXPECT_TRUE((::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
            ++sockets;
        }
    EXPECT_GE(sockets, 5);
    patient.close();
    EXPECT_EQ(waiting.receive(), "");
    server.close();
    server.close();
    EXPECT_EQ(idle.receive(), "");
    EXPECT_FALSE(Client(server.port()).connected);
    EXPECT_TRUE(eventually([&] { return server.clients() == 0; }));
    EXPECT_EQ(server.activity(server.registerSource(tap, "A.mov")), std::nullopt);
}

// Requests that are almost right, and some that are, from a fixed seed.
TEST_F(RangeServerTest, ComesThroughTenThousandBadRequestsUnchanged) {
    const auto memory = [] {
        std::ifstream statm("/proc/self/statm");
        std::int64_t all = 0, resident = 0;
        statm >> all >> resident;
        return resident * ::sysconf(_SC_PAGESIZE);
    };
    std::minstd_rand random(20261125);
    const std::vector<std::string> words = {"\r\n",
                                            "\r\n\r\n",
                                            ":",
                                            "/",
                                            "..",
                                            " ",
                                            "\xff",
                                            "HTTP/1.",
                                            "bytes=",
                                            "-",
                                            "GET",
                                            "Range:",
                                            "Host:",
                                            "9223372036854775808",
                                            "%2e",
                                            std::string(1, '\0'),
                                            ",",
                                            "close",
                                            std::string(5000, 'x')};
    std::int64_t after = 0;
    for (int round = 0; round < 10'000; ++round) {
        std::string text = request(round % 3 == 0 ? "HEAD" : "GET", "Range: bytes=10-19\r\nConnection: close\r\n");
        for (auto changes = random() % 4; changes > 0; --changes) {
            const std::size_t at = random() % text.size();
            if (const auto how = random() % 3; how == 0)
                text.insert(at, words[random() % words.size()]);
            else if (how == 1)
                text[at] = static_cast<char>(random());
            else
                text.erase(at, random() % 20);
        }
        if (text.find("\r\n\r\n") == std::string::npos)
            text += "\r\n\r\n";
        const Client client(server.port());
        ASSERT_TRUE(client.connected);
        client.send(text);
        client.send("x\r\n\r\n"); // ends whoever was allowed to go on
        const std::string got = client.receive();
        ASSERT_THAT(got, testing::AnyOf("", testing::StartsWith("HTTP/1.1 "))) << text;
        ASSERT_FALSE(got.ends_with('?')) << text;
        if (round == 2000)
            after = memory();
    }
    EXPECT_LT(memory() - after, 8 << 20);
    EXPECT_TRUE(serves());
    EXPECT_NE(file.verifier->finish().kind, BlockOutcome::Kind::mismatch);
    EXPECT_EQ(BlockReads::complete(file.path, *file.verifier, {}).outcome, BlockOutcome::verified());
}

TEST_F(RangeServerTest, ServesCurlAndFfmpegLikeAFile) {
    EXPECT_EQ(test::shell("curl -sf " + url + " | md5sum"), test::shell("md5sum < " + file.path));
    EXPECT_EQ(test::shell("curl -s -o /dev/null -w '%{http_code}' -H 'Host: velmora.example' " + url), "400");
    const std::string make = "ffmpeg -v error -f lavfi -i testsrc2=s=1280x720:d=4 -f lavfi -i sine=d=4 -shortest ";
    for (const char* const how : {"-c:v mpeg4 -q:v 2 -c:a pcm_s16le -f mov", "-c:v mpeg4 -q:v 2 -c:a aac -f mp4",
                                  "-c:v mpeg4 -q:v 2 -c:a aac -movflags +faststart -f mp4",
                                  "-c:v mpeg2video -q:v 2 -c:a pcm_s16le -ar 48000 -f mxf"}) {
        const std::string path = card / "clip";
        test::shell(make + how + " -y " + path);
        const Tapped clip(card / "other", test::FileTree::read(path), 1 << 20);
        const auto clipTap = clip.open();
        const std::string from = server.registerSource(clipTap, "A.mov");
        const auto frames = [](const std::string& input) {
            return test::shell("ffmpeg -v error " + input + " -f framemd5 - | md5sum");
        };
        EXPECT_EQ(frames("-short_seek_size 65536 -i " + from), frames("-i " + path)) << how;
        EXPECT_GT(clip.verifier->verifiedBytes(), clipTap->length() * 9 / 10) << how;
        EXPECT_LE(clipTap->fromDisk(), clipTap->length() * 102 / 100) << how;
        server.unregister(from);
    }
}

} // namespace
} // namespace velmora
