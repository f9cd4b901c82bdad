// The other processes that bench_transport talks to.

#include "socket_peer.h"

#include <hxcommon/hxbroker.h>
#include <libmw/local.h>

#include <iostream>

namespace {

void runBroker() {
  const auto broker = HX::HXBroker::create("bench");
  broker->loadModule("hxmemory");
  const mw::LocalServer server(*broker->session(), "bench");
  ::pause();
}

/// Sends back what comes, to one peer at a time.
void runEcho(const std::string& path) {
  const int listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening, 1) != 0) {
    throw std::runtime_error("cannot listen on " + path);
  }
  std::vector<char> buffer(std::size_t{1} << 18);
  while (true) {
    const int peer = ::accept(listening, nullptr, nullptr);
    while (true) {
      const ssize_t received = ::recv(peer, buffer.data(), buffer.size(), 0);
      if (received <= 0) break;
      for (ssize_t sent = 0; sent < received;) {
        sent += std::max<ssize_t>(
            0, ::send(peer, buffer.data() + sent, static_cast<std::size_t>(received - sent), MSG_NOSIGNAL));
      }
    }
    ::close(peer);
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string role = argc > 1 ? argv[1] : "";
  try {
    if (role == "broker") runBroker();
    if (role == "echo" && argc > 2) runEcho(argv[2]);
  } catch (const std::exception& error) {
    std::cerr << "bench_transport_peer " << role << ": " << error.what() << '\n';
  }
  return 1;
}
