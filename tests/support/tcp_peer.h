#pragma once

#include <cstdint>
#include <string>

// A scripted switcher for tests: a listening socket on 127.0.0.1 and plain
// reads and writes with deadlines on the accepted connection.
struct tcp_listener {
  int fd = -1;
  std::uint16_t port = 0;
};

// Listens on port (0: an ephemeral one) of the loopback address; fd is -1 on
// failure.
tcp_listener listen_loopback(const char* address = "127.0.0.1", std::uint16_t port = 0);
// Accepts one connection within timeout_ms; -1 when none arrived.
int accept_within(const tcp_listener& l, int timeout_ms);
// Connects to port of 127.0.0.1 (blocking); -1 on failure.
int connect_loopback(std::uint16_t port);
// Reads until at least min_bytes arrived or timeout_ms passed; returns what
// was read (possibly less).
std::string read_for(int fd, std::size_t min_bytes, int timeout_ms);
// Writes all of bytes (blocking); false on failure.
bool write_all(int fd, const std::string& bytes);
void close_fd(int& fd);
