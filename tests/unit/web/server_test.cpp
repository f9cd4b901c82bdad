#include <arpa/inet.h>
#include <atomic>
#include <http/server.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using namespace HX::web;

/// Says what it was asked.
class Echo : public Handler {
 public:
  Response answer(const Request& request) override {
    ++answered;
    return Response::text(200, request.method + " " + request.path + " " + request.query + " " + request.body);
  }
  Upgrade upgrade(const Request& /*request*/) override { return {nullptr, {}, Response::text(403, "no")}; }
  std::atomic<int> answered{0};
};

/// A peer that says what it likes.
class Peer {
 public:
  explicit Peer(std::uint16_t port) : file_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(file_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const timeval limit{10, 0};
    setsockopt(file_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { close(file_); }

  void say(const std::string& text) const { EXPECT_GE(::send(file_, text.data(), text.size(), MSG_NOSIGNAL), 0); }
  /// All that comes until `end` has come, or nothing more does.
  std::string hear(const std::string& end) const {
    std::string heard;
    char bytes[4096];
    while (heard.find(end) == std::string::npos) {
      const ssize_t count = recv(file_, bytes, sizeof bytes, 0);
      if (count <= 0) break;
      heard.append(bytes, static_cast<std::size_t>(count));
    }
    return heard;
  }

 private:
  int file_;
};

class ServerTest : public testing::Test {
 protected:
  static ServerOptions options() {
    ServerOptions made;
    made.limits.connections = 4;
    return made;
  }
  std::string statusOf(const std::string& request) {
    const Peer peer(server_.port());
    peer.say(request);
    return peer.hear("\r\n").substr(0, 12);
  }

  Echo echo_;
  Server server_{options()};
  void SetUp() override { server_.serve(echo_); }
};

TEST_F(ServerTest, AnswersRequestsOfOneConnectionInTurn) {
  const Peer peer(server_.port());
  peer.say("GET /a?b=c HTTP/1.1\r\nHost: x\r\n\r\nPOST /d HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\nhi");
  const std::string heard = peer.hear("hi");
  EXPECT_NE(heard.find("GET /a b=c "), std::string::npos);
  EXPECT_NE(heard.find("POST /d  hi"), std::string::npos);
}

TEST_F(ServerTest, RefusesWhatIsTooMuchOrMeansTwoThings) {
  EXPECT_EQ(statusOf("GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusOf("GET / HTTP/1.1\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusOf("GET / HTTP/1.1\r\nHost: a\r\nOrigin: b\r\nOrigin: c\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusOf("GET http://a/ HTTP/1.1\r\nHost: a\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusOf("nonsense\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(statusOf("GET / HTTP/1.1\r\nHost: a\r\nX: " + std::string(20000, 'x') + "\r\n\r\n"), "HTTP/1.1 431");
  EXPECT_EQ(statusOf("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 100000\r\n\r\n"), "HTTP/1.1 413");
  EXPECT_EQ(echo_.answered, 0) << "none of it reaches the handler";
}

TEST_F(ServerTest, MakesRoomForWhoSpeaksAmongThoseWhoAreSilent) {
  std::vector<std::unique_ptr<Peer>> silent;
  for (int i = 0; i < 20; ++i) silent.push_back(std::make_unique<Peer>(server_.port()));
  EXPECT_EQ(statusOf("GET / HTTP/1.1\r\nHost: x\r\n\r\n"), "HTTP/1.1 200");
}

TEST(Server, SaysWhatItCannotHave) {
  const Server first{ServerOptions{}};
  ServerOptions same;
  same.port = first.port();
  EXPECT_THROW(Server{same}, std::runtime_error);
  ServerOptions nowhere;
  nowhere.address = "nowhere";
  EXPECT_THROW(Server{nowhere}, std::runtime_error);
  ServerOptions secret;
  secret.certificate = "/nowhere.pem";
  EXPECT_THROW(Server{secret}, std::runtime_error);
}

}  // namespace
