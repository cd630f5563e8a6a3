// WSAPoll needs Windows Vista or later.
#if !defined(_WIN32_WINNT) || _WIN32_WINNT < 0x0600
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0600
#endif
#include <winsock2.h>
#include <ws2tcpip.h>

#include "server/net.h"

namespace cvn {

namespace {

sockaddr_in loopback_address(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = inet_addr("127.0.0.1");
  addr.sin_port = htons(static_cast<u_short>(port));
  return addr;
}

}  // namespace

bool net_init() {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

SocketHandle bind_loopback(int first_port, int tries, int* bound_port) {
  SOCKET s = ::socket(AF_INET, SOCK_STREAM, 0);
  if (s == INVALID_SOCKET) return kInvalidSocket;
  BOOL one = TRUE;
  ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof one);
  for (int i = 0; i < tries; ++i) {
    sockaddr_in addr = loopback_address(first_port + i);
    if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      *bound_port = first_port + i;
      return static_cast<SocketHandle>(s);
    }
  }
  ::closesocket(s);
  return kInvalidSocket;
}

bool listen_on(SocketHandle s, int backlog) {
  return ::listen(static_cast<SOCKET>(s), backlog) == 0;
}

SocketHandle accept_on(SocketHandle listener) {
  SOCKET c = ::accept(static_cast<SOCKET>(listener), nullptr, nullptr);
  return c == INVALID_SOCKET ? kInvalidSocket : static_cast<SocketHandle>(c);
}

long recv_some(SocketHandle s, char* buf, std::size_t n) {
  return ::recv(static_cast<SOCKET>(s), buf, static_cast<int>(n), 0);
}

long send_some(SocketHandle s, const char* buf, std::size_t n) {
  return ::send(static_cast<SOCKET>(s), buf, static_cast<int>(n), 0);
}

bool would_block() {
  int e = WSAGetLastError();
  return e == WSAEWOULDBLOCK || e == WSAETIMEDOUT;
}

bool set_nonblocking(SocketHandle s, bool on) {
  u_long mode = on ? 1 : 0;
  return ::ioctlsocket(static_cast<SOCKET>(s), FIONBIO, &mode) == 0;
}

bool set_receive_timeout(SocketHandle s, int ms) {
  DWORD value = static_cast<DWORD>(ms);
  return ::setsockopt(static_cast<SOCKET>(s), SOL_SOCKET, SO_RCVTIMEO,
                      reinterpret_cast<const char*>(&value), sizeof value) == 0;
}

bool wait_readable(std::span<const SocketHandle> sockets, std::vector<bool>* ready,
                   int timeout_ms) {
  std::vector<WSAPOLLFD> fds(sockets.size());
  // POLLRDNORM rather than POLLIN: WSAPoll refuses flags a socket type does
  // not support, and normal data (or a pending accept) is all we wait for.
  for (std::size_t i = 0; i < sockets.size(); ++i)
    fds[i] = {static_cast<SOCKET>(sockets[i]), POLLRDNORM, 0};
  ready->assign(sockets.size(), false);
  if (sockets.empty()) {  // WSAPoll refuses an empty set; poll() just waits
    ::Sleep(static_cast<DWORD>(timeout_ms < 0 ? 0 : timeout_ms));
    return true;
  }
  int n = ::WSAPoll(fds.data(), static_cast<ULONG>(fds.size()), timeout_ms);
  if (n == SOCKET_ERROR) return false;
  for (std::size_t i = 0; i < fds.size(); ++i) (*ready)[i] = fds[i].revents != 0;
  return true;
}

void close_socket(SocketHandle s) {
  ::closesocket(static_cast<SOCKET>(s));
}

SocketHandle connect_loopback(int port) {
  SOCKET s = ::socket(AF_INET, SOCK_STREAM, 0);
  if (s == INVALID_SOCKET) return kInvalidSocket;
  sockaddr_in addr = loopback_address(port);
  if (::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::closesocket(s);
    return kInvalidSocket;
  }
  return static_cast<SocketHandle>(s);
}

}  // namespace cvn
