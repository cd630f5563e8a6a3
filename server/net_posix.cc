#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "server/net.h"

namespace cvn {

namespace {

sockaddr_in loopback_address(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return addr;
}

}  // namespace

bool net_init() {
  return true;
}

SocketHandle bind_loopback(int first_port, int tries, int* bound_port) {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  if (s < 0) return kInvalidSocket;
  int one = 1;
  ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  for (int i = 0; i < tries; ++i) {
    sockaddr_in addr = loopback_address(first_port + i);
    if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      *bound_port = first_port + i;
      return s;
    }
  }
  ::close(s);
  return kInvalidSocket;
}

bool listen_on(SocketHandle s, int backlog) {
  return ::listen(static_cast<int>(s), backlog) == 0;
}

SocketHandle accept_on(SocketHandle listener) {
  int c = ::accept(static_cast<int>(listener), nullptr, nullptr);
  return c < 0 ? kInvalidSocket : c;
}

long recv_some(SocketHandle s, char* buf, std::size_t n) {
  for (;;) {
    long r = ::recv(static_cast<int>(s), buf, n, 0);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

long send_some(SocketHandle s, const char* buf, std::size_t n) {
  for (;;) {
    long r = ::send(static_cast<int>(s), buf, n, MSG_NOSIGNAL);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

void shutdown_socket(SocketHandle s) {
  ::shutdown(static_cast<int>(s), SHUT_RDWR);
}

void close_socket(SocketHandle s) {
  ::close(static_cast<int>(s));
}

SocketHandle connect_loopback(int port) {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  if (s < 0) return kInvalidSocket;
  sockaddr_in addr = loopback_address(port);
  if (::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(s);
    return kInvalidSocket;
  }
  return s;
}

}  // namespace cvn
