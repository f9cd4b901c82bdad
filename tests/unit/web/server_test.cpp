#include "temporary_folder.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <http/server.h>
#include <memory>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using namespace HX::web;

/// Says what it was asked.
class Echo : public Handler {
 public:
  void answer(const Request& request, Reply reply) override {
    ++answered;
    auto response = Response::text(200, request.method + " " + request.path + " " + request.query + " " + request.body);
    if (request.path != "/later") return reply(std::move(response));
    late_ = std::jthread([reply = std::move(reply), response = std::move(response)] { reply(response); });
  }
  Upgrade upgrade(const Request& /*request*/) override { return {nullptr, {}, Response::text(403, "no")}; }
  std::atomic<int> answered{0};

 private:
  std::jthread late_;
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
  peer.say(
      "GET /later HTTP/1.1\r\nHost: x\r\n\r\nGET /a?b=c HTTP/1.1\r\nHost: x\r\n\r\nPOST /d HTTP/1.1\r\nHost: "
      "x\r\nContent-Length: 2\r\n\r\nhi");
  const std::string heard = peer.hear("hi");
  EXPECT_LT(heard.find("GET /later "), heard.find("GET /a b=c ")) << "in turn, also where an answer takes its time";
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

/// A certificate for localhost and its key, as `openssl` makes them.
bool makeCertificate(const std::filesystem::path& folder, const std::string& name) {
  const std::string stem = (folder / name).string();
  return std::system(
             ("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 -subj /CN=localhost"
              " -addext subjectAltName=DNS:localhost -keyout " +
              stem + ".key -out " + stem + ".pem 2>/dev/null")
                 .c_str()) == 0;
}

/// What a client that trusts one certificate alone gets; empty when there is no way to it.
std::string askByTls(std::uint16_t port, const std::string& trusted) {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  SSL_CTX_load_verify_locations(context.get(), trusted.c_str(), nullptr);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> line(BIO_new_ssl_connect(context.get()), BIO_free_all);
  SSL* ssl = nullptr;
  BIO_get_ssl(line.get(), &ssl);
  SSL_set1_host(ssl, "localhost");
  std::string address = "127.0.0.1:" + std::to_string(port);
  BIO_ctrl(line.get(), BIO_C_SET_CONNECT, 0, address.data());
  if (BIO_do_connect(line.get()) != 1 || BIO_puts(line.get(), "GET /tls HTTP/1.0\r\nHost: x\r\n\r\n") <= 0) return {};
  std::string heard;
  char bytes[1024];
  for (int count = 0; (count = BIO_read(line.get(), bytes, sizeof bytes)) > 0;) {
    heard.append(bytes, static_cast<std::size_t>(count));
  }
  return heard;
}

TEST(ServerWithTls, IsReachedByItsCertificateAlone) {
  const kit::TemporaryFolder folder;
  if (!makeCertificate(folder.path(), "own") || !makeCertificate(folder.path(), "other")) GTEST_SKIP() << "no openssl";
  const auto file = [&](const char* name) { return (folder.path() / name).string(); };
  ServerOptions options;
  options.certificate = file("own.pem");
  options.key = file("own.key");
  Echo echo;
  Server server(options);
  server.serve(echo);
  EXPECT_NE(askByTls(server.port(), file("own.pem")).find("GET /tls"), std::string::npos);
  EXPECT_EQ(askByTls(server.port(), file("other.pem")), "") << "another one's";
  const Peer plain(server.port());
  plain.say("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(plain.hear("200").find("200"), std::string::npos) << "without TLS nothing is told";

  options.key = file("other.key");
  EXPECT_THROW(Server{options}, std::runtime_error) << "it is not this certificate's";
  options.certificate = file("missing.pem");
  try {
    const Server none(options);
    ADD_FAILURE() << "it has no certificate";
  } catch (const std::exception& error) {
    EXPECT_NE(std::string(error.what()).find("missing.pem"), std::string::npos) << error.what();
  }
}

}  // namespace
