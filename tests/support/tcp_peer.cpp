#include "support/tcp_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace {

int elapsed_ms_since(std::chrono::steady_clock::time_point start) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now() - start)
                              .count());
}

}  // namespace

tcp_listener listen_loopback() {
  tcp_listener l;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return l;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    close(fd);
    return l;
  }
  l.fd = fd;
  l.port = ntohs(addr.sin_port);
  return l;
}

int accept_within(const tcp_listener& l, int timeout_ms) {
  pollfd p{l.fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) != 1) return -1;
  return accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC);
}

std::string read_for(int fd, std::size_t min_bytes, int timeout_ms) {
  std::string out;
  const auto start = std::chrono::steady_clock::now();
  while (out.size() < min_bytes) {
    const int left = timeout_ms - elapsed_ms_since(start);
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, left) != 1) break;
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  return out;
}

bool write_all(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void close_fd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

std::uint16_t unused_loopback_port() {
  tcp_listener l = listen_loopback();
  const std::uint16_t port = l.port;
  close_fd(l.fd);
  return port;
}
