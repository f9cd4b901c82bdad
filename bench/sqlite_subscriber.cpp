// What one writes in an afternoon to record a robot: a subscriber of an MQTT broker that appends each message to a
// table of SQLite, in a transaction of half a second.
//
//   sqlite_subscriber PORT FILE

#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <netinet/in.h>
#include <poll.h>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t ends = 0;

class Table {
 public:
  explicit Table(const char* file) {
    if (::sqlite3_open(file, &base_) != SQLITE_OK) throw std::runtime_error("cannot open the file");
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=NORMAL");
    run("CREATE TABLE changes(time INTEGER, key TEXT, value TEXT)");
    ::sqlite3_prepare_v2(base_, "INSERT INTO changes VALUES(?,?,?)", -1, &insert_, nullptr);
    run("BEGIN");
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table() {
    run("COMMIT");
    ::sqlite3_finalize(insert_);
    ::sqlite3_close(base_);
  }

  void add(std::string_view key, std::string_view value) {
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    ::sqlite3_bind_int64(insert_, 1, now);
    ::sqlite3_bind_text(insert_, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    ::sqlite3_bind_text(insert_, 3, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    ::sqlite3_step(insert_);
    ::sqlite3_reset(insert_);
  }
  void commit() {
    run("COMMIT");
    run("BEGIN");
  }

 private:
  void run(const char* text) {
    if (::sqlite3_exec(base_, text, nullptr, nullptr, nullptr) != SQLITE_OK) throw std::runtime_error(text);
  }
  sqlite3* base_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
};

/// Takes whole packets from the front. @return How many bytes they were.
std::size_t takePackets(std::string_view bytes, Table& table) {
  std::size_t taken = 0;
  while (bytes.size() - taken >= 2) {
    const std::string_view packet = bytes.substr(taken);
    std::size_t length = 0;
    std::size_t head = 1;
    for (unsigned shift = 0; head < packet.size(); shift += 7) {
      const auto byte = static_cast<unsigned char>(packet[head++]);
      length |= static_cast<std::size_t>(byte & 0x7fU) << shift;
      if (byte < 0x80) break;
    }
    if (packet.size() < head + length) break;
    if ((static_cast<unsigned char>(packet[0]) & 0xf0U) == 0x30U) {
      const std::string_view body = packet.substr(head, length);
      const auto high = static_cast<unsigned char>(body[0]);
      const std::size_t name = std::size_t{high} << 8U | static_cast<unsigned char>(body[1]);
      table.add(body.substr(2, name), body.substr(2 + name));
    }
    taken += head + length;
  }
  return taken;
}

void follow(std::uint16_t port, Table& table) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("nobody listens");
  }
  using namespace std::string_view_literals;
  constexpr auto kHello =
      "\x10\x10\x00\x04MQTT\x04\x02\x00\x00\x00\x04"
      "base\x82\x06\x00\x01\x00\x01#\x00"sv;
  if (::write(socket, kHello.data(), kHello.size()) < 0) throw std::runtime_error("cannot subscribe");
  std::string bytes;
  std::array<char, 65536> buffer{};
  auto committed = std::chrono::steady_clock::now();
  while (ends == 0) {
    pollfd polled{socket, POLLIN, 0};
    if (::poll(&polled, 1, 100) > 0) {
      const ssize_t count = ::read(socket, buffer.data(), buffer.size());
      if (count <= 0) break;
      bytes.append(buffer.data(), static_cast<std::size_t>(count));
      bytes.erase(0, takePackets(bytes, table));
    }
    if (std::chrono::steady_clock::now() - committed < std::chrono::milliseconds(500)) continue;
    table.commit();
    committed = std::chrono::steady_clock::now();
  }
  ::close(socket);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGTERM, [](int) { ends = 1; });
  try {
    if (argc != 3) throw std::runtime_error("usage: sqlite_subscriber PORT FILE");
    Table table(argv[2]);
    follow(static_cast<std::uint16_t>(std::stoi(argv[1])), table);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "sqlite_subscriber: " << error.what() << '\n';
    return 1;
  }
}
