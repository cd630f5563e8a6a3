// The few socket operations the server needs, over the platform's sockets.
// Only loopback IPv4 is ever used. The platform files are net_posix.cc and
// (for the Windows build) net_win32.cc.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace cvn {

using SocketHandle = std::intptr_t;
inline constexpr SocketHandle kInvalidSocket = -1;

/// Starts the socket layer (Winsock 2.2 on Windows; nothing elsewhere).
bool net_init();

/// Creates one IPv4 stream socket with SO_REUSEADDR set once, then tries to
/// bind it to 127.0.0.1 on `first_port`, `first_port + 1`, ... (`tries` ports
/// in all). Returns the socket and the bound port, or kInvalidSocket.
SocketHandle bind_loopback(int first_port, int tries, int* bound_port);

bool listen_on(SocketHandle s, int backlog);

/// The next connection (blocking unless the listener is non-blocking);
/// kInvalidSocket on failure or, non-blocking, when none is waiting.
SocketHandle accept_on(SocketHandle listener);

/// One receive of at most `n` bytes: > 0 bytes read, 0 closed, < 0 error
/// (also: nothing there yet on a non-blocking socket, or the receive
/// time-out passed; would_block() tells these apart).
long recv_some(SocketHandle s, char* buf, std::size_t n);

/// True when the last failed accept_on or recv_some on this thread failed
/// only because nothing was ready (or the receive time-out passed).
bool would_block();

/// Switches between blocking and non-blocking calls.
bool set_nonblocking(SocketHandle s, bool on);

/// A blocking receive gives up after `ms` milliseconds (0: waits forever).
bool set_receive_timeout(SocketHandle s, int ms);

/// Waits up to `timeout_ms` until at least one of `sockets` can be read
/// without blocking: data, a connection to accept, end of stream or an
/// error. `ready` gets one flag per socket. False when the wait itself
/// failed; an interrupted wait counts as a wait with nothing ready.
bool wait_readable(std::span<const SocketHandle> sockets, std::vector<bool>* ready, int timeout_ms);

/// One send of at most `n` bytes; never raises SIGPIPE on a closed peer.
long send_some(SocketHandle s, const char* buf, std::size_t n);

void close_socket(SocketHandle s);

/// Client side, for tools and tests: connects to 127.0.0.1:port.
SocketHandle connect_loopback(int port);

}  // namespace cvn
