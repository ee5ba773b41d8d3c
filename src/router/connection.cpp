#include "router/connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/config.h"
#include "base/diag.h"
#include "base/flags.h"
#include "router/link_texts.h"
#include "router/protocol.h"
#include "router/receive.h"

namespace {

// At most this much is read per call, so a busy switcher cannot hold a caller.
constexpr std::size_t read_chunk_bytes = 4096;
// Two attempts start at least this far apart, however they ended.
constexpr us_time_t connect_retry_interval_us = 5000000;
// How long one check of a connect in progress may wait for its outcome.
constexpr long connect_check_wait_us = 1000;
// Silence after which the connection (or a hanging connect) is dropped.
constexpr us_time_t watchdog_silence_us = 20000000;

int sock = -1;                    // the switcher socket; closed only by connection_close()
bool connect_in_progress = false;  // a non-blocking connect awaits its outcome
us_time_t next_connect_time = 0;   // no attempt starts before this
us_time_t last_activity_time = 0;  // attempt start, or last message completed or rejected

// Framed bytes for the switcher. Invariant: tx_written <= tx_buffer.size(); the
// leading tx_written bytes are on the wire, the rest wait for the next write.
std::string tx_buffer;
std::uint64_t tx_written = 0;

// Tests point the link at their own listener without touching the settings.
bool target_overridden = false;
std::string target_address;
std::int32_t target_port = -1;

const std::string& current_address() {
  return target_overridden ? target_address : router_address();
}

std::int32_t current_port() { return target_overridden ? target_port : router_port(); }

// Starts one attempt: socket, non-blocking connect. On failure the attempt is
// over and the link is closed again; the retry timer was already advanced.
void start_attempt(us_time_t now) {
  connect_in_progress = false;
  next_connect_time = now + connect_retry_interval_us;
  last_activity_time = now;

  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  const std::int32_t port = current_port();
  addr.sin_port = htons(port >= 1 ? static_cast<std::uint16_t>(port & 0xFFFF) : default_router_port);
  // Numeric dotted forms only: a name lookup could block the thread.
  if (inet_aton(current_address().c_str(), &addr.sin_addr) == 0) {
    diag("<ERR>Cannot connect, cannot parse IP address\n");
    connection_close();
    return;
  }
  sock = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (sock < 0) {
    diag("<ERR>Cannot connect, cannot create socket\n");
    connection_close();
    return;
  }
  errno = 0;
  if (connect(sock, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
    diag("%s", link_connected_at_once);
    raise_flag(process_flag::sync_needed);
  } else if (errno == EINPROGRESS) {
    // The socket is non-blocking: the outcome is checked on later calls.
    diag("%s", link_trying);
    connect_in_progress = true;
  } else {
    diag(link_cannot_connect, std::strerror(errno));
    connection_close();
  }
}

// Looks at a connect in progress for at most 1 ms; an undecided connect stays
// in progress for the next call.
void check_connect_outcome() {
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(sock, &writable);
  timeval wait{0, connect_check_wait_us};
  if (select(sock + 1, nullptr, &writable, nullptr, &wait) < 1) return;

  // A failing getsockopt leaves the preset, which reads as a failed connect.
  int error = -1;
  socklen_t len = sizeof error;
  (void)getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &len);
  if (error == 0) {
    diag("%s", link_connected);
    connect_in_progress = false;
    raise_flag(process_flag::sync_needed);
  } else {
    diag(link_connect_failed, std::strerror(error));
    connection_close();
  }
}

// One write of every unwritten byte; a dead connection is logged and closed.
// The buffer is released once all of it has gone out.
void flush_tx_buffer() {
  if (tx_written < tx_buffer.size()) {
    errno = 0;
    const ssize_t n = write(sock, tx_buffer.data() + tx_written, tx_buffer.size() - tx_written);
    if (n > 0) {
      tx_written += static_cast<std::uint64_t>(n);
    } else if (n == 0) {
      diag("<NOTE>Connection suddenly dropped\n");
      connection_close();
    } else if (errno != EAGAIN) {
      diag("<NOTE>Connection problem, %s\n", std::strerror(errno));
      connection_close();
    }
  }
  if (tx_written >= tx_buffer.size()) {
    tx_buffer.clear();
    tx_written = 0;
  }
}

}  // namespace

void connection_connect() {
  if (sock < 0) {
    const us_time_t now = monotonic_now_us();
    if (now < next_connect_time) return;
    if (current_address().empty()) return;
    start_attempt(now);
    if (sock < 0) return;
  }
  if (!connect_in_progress) return;
  check_connect_outcome();
}

void connection_poll() {
  if (sock < 0) return;
  if (connect_in_progress) connection_connect();
  connection_read();
  if (sock >= 0) flush_tx_buffer();

  // The watchdog runs even when the steps above closed the socket; it then
  // only warns, since there is nothing left to close.
  if (monotonic_now_us() >= last_activity_time + watchdog_silence_us) {
    diag("<WARN>Connection timeout\n");
    connection_close();
  }
}

void connection_close() {
  if (sock < 0) return;
  // On Linux a failing close has either released the descriptor (EINTR, EIO)
  // or never had it open (EBADF); retrying could close a descriptor that was
  // reused meanwhile. So the socket counts as gone and the link is reset as
  // after a clean close.
  (void)close(sock);
  diag("%s", link_closed);
  sock = -1;
  clear_flag(process_flag::sync_needed);
  receive_reset();
  tx_buffer.clear();
  tx_written = 0;
}

void connection_queue_and_write(const char* bytes, std::size_t n) {
  // Frames only join at the back and leave from the front, so they reach the
  // switcher in the order they were queued, even across partial writes. With
  // no socket nothing is queued: closing empties the buffer, and stale frames
  // must not reach the next connection.
  if (sock < 0) return;
  tx_buffer.append(bytes, n);
  flush_tx_buffer();
}

bool connection_sendmsg(router_message& msg) {
  if (!connection_is_open() || connection_connect_in_progress()) return false;
  router_frame frame;
  if (!encode_router_frame(msg, frame)) return false;
  // The frame is NUL-terminated text: what goes out is the bytes before the
  // first NUL.
  connection_queue_and_write(frame.data(), std::strlen(frame.data()));
  diag(link_frame_sent, frame.data());
  return true;
}

void connection_read() {
  if (sock < 0) return;
  char buf[read_chunk_bytes];
  errno = 0;
  const ssize_t n = read(sock, buf, sizeof buf);
  if (n == 0) {
    diag("<NOTE>Connection suddenly dropped\n");
    connection_close();
  } else if (n < 0) {
    if (errno == EAGAIN) return;
    diag("<NOTE>Connection problem, %s\n", std::strerror(errno));
    connection_close();
  } else if (receive_bytes(buf, static_cast<std::size_t>(n)) > 0) {
    last_activity_time = monotonic_now_us();
  }
}

router_message connection_recvmsg() {
  // Reading first lets a waiting caller see what arrived since its last poll.
  connection_read();
  return receive_take_message();
}

bool connection_is_open() { return sock >= 0; }
int connection_socket() { return sock; }
bool connection_connect_in_progress() { return connect_in_progress; }
bool connection_tx_pending() { return !tx_buffer.empty(); }
bool connection_ready() { return sock >= 0 && !connect_in_progress; }

void connection_set_last_activity_for_test(us_time_t t) { last_activity_time = t; }
void connection_set_next_connect_time_for_test(us_time_t t) { next_connect_time = t; }
void connection_set_connect_in_progress_for_test(bool in_progress) {
  connect_in_progress = in_progress;
}
us_time_t connection_next_connect_time_for_test() { return next_connect_time; }

void connection_set_target_for_test(const std::string& address, std::int32_t port) {
  target_overridden = true;
  target_address = address;
  target_port = port;
}

void connection_reset_for_test() {
  connection_close();
  connect_in_progress = false;
  next_connect_time = 0;
  last_activity_time = 0;
  target_overridden = false;
  target_address.clear();
  target_port = -1;
}
