#include "support/tcp_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

tcp_listener listen_loopback(const char* address, std::uint16_t port) {
  tcp_listener l;
  l.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  const int one = 1;
  socklen_t len = sizeof addr;
  if (l.fd < 0 || inet_aton(address, &addr.sin_addr) == 0 ||
      setsockopt(l.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      bind(l.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(l.fd, 8) != 0 || getsockname(l.fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    close_fd(l.fd);
    return l;
  }
  l.port = ntohs(addr.sin_port);
  return l;
}

int accept_within(const tcp_listener& l, int timeout_ms) {
  pollfd p{l.fd, POLLIN, 0};
  return poll(&p, 1, timeout_ms) == 1 ? accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

int connect_loopback(std::uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) close_fd(fd);
  return fd;
}

std::string read_for(int fd, std::size_t min_bytes, int timeout_ms) {
  using namespace std::chrono;
  const auto end = steady_clock::now() + milliseconds(timeout_ms);
  std::string out;
  while (out.size() < min_bytes) {
    const auto left = duration_cast<milliseconds>(end - steady_clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    ssize_t n = 0;
    if (left <= 0 || poll(&p, 1, static_cast<int>(left)) != 1 ||
        (n = read(fd, buf, sizeof buf)) <= 0) {
      break;
    }
    out.append(buf, static_cast<std::size_t>(n));
  }
  return out;
}

bool write_all(int fd, const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
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
