#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
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
  for (;;) {
    int c = ::accept(static_cast<int>(listener), nullptr, nullptr);
    if (c < 0 && errno == EINTR) continue;
    return c < 0 ? kInvalidSocket : c;
  }
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

bool would_block() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

bool set_nonblocking(SocketHandle s, bool on) {
  int flags = ::fcntl(static_cast<int>(s), F_GETFL, 0);
  if (flags < 0) return false;
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return ::fcntl(static_cast<int>(s), F_SETFL, flags) == 0;
}

bool set_receive_timeout(SocketHandle s, int ms) {
  timeval tv{};
  tv.tv_sec = ms / 1000;
  tv.tv_usec = (ms % 1000) * 1000;
  return ::setsockopt(static_cast<int>(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

bool wait_readable(std::span<const SocketHandle> sockets, std::vector<bool>* ready,
                   int timeout_ms) {
  std::vector<pollfd> fds(sockets.size());
  for (std::size_t i = 0; i < sockets.size(); ++i)
    fds[i] = {static_cast<int>(sockets[i]), POLLIN, 0};
  ready->assign(sockets.size(), false);
  int n = ::poll(fds.data(), fds.size(), timeout_ms);
  if (n < 0) return errno == EINTR;
  for (std::size_t i = 0; i < fds.size(); ++i) (*ready)[i] = fds[i].revents != 0;
  return true;
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
