#include "switcher_emulator/server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "base/diag.h"
#include "switcher_emulator/control.h"
#include "switcher_emulator/pcap.h"

namespace {

// While this many answer bytes wait for the client, its requests wait too.
constexpr std::size_t max_tx_bytes = std::size_t{256} * 1024;
constexpr std::size_t read_chunk = 4096;

// True with a 1-in-n chance; never when n is 0.
bool one_in(emulator_server& s, std::uint32_t n) {
  return n > 0 && emulator_random(s.rng) % n == 0;
}

void drop_client(emulator_server& s, const char* why) {
  if (s.client_fd < 0) return;
  close(s.client_fd);
  pcap_closed();
  s.client_fd = -1;
  s.rx = frame_splitter{};
  s.tx.clear();
  s.tx_bytes = 0;
  s.frames_in = 0;
  if (s.opt.verbose) diag("client %s\n", why);
}

// Frames msg and queues it behind everything already waiting, with the
// configured delay, stray bytes and checksum damage applied.
void queue_frame(emulator_server& s, const router_message& msg, us_time_t now) {
  router_frame frame;
  if (!encode_router_frame(msg, frame)) {
    diag("cannot frame answer %s\n", server_frame_line("send", msg).c_str());
    return;
  }
  if (s.opt.verbose) diag("%s\n", server_frame_line("send", msg).c_str());
  const emulator_faults& f = s.faults;
  server_chunk c;
  if (f.garbage > 0) {
    const std::uint64_t n = 1 + emulator_random(s.rng) % f.garbage;
    for (std::uint64_t i = 0; i < n; ++i) {
      char b = static_cast<char>(emulator_random(s.rng) & 0xFF);
      // Lead bytes would start a message at the client and swallow the frame.
      if (b == soh || b == ack_byte || b == nak_byte) b = '?';
      c.bytes.push_back(b);
    }
    if (s.opt.verbose) diag("fault garbage %llu\n", static_cast<unsigned long long>(n));
  }
  std::string text(frame.data());
  if (text.size() >= 8 && text.front() == soh && one_in(s, f.corrupt_random)) {
    char& digit = text[text.size() - 2];
    digit = digit == '0' ? '1' : '0';
    if (s.opt.verbose) diag("fault corrupt\n");
  }
  c.bytes += text;
  std::uint64_t delay = f.delay_ms * 1000ULL;
  if (f.delay_jitter_ms > 0) delay += emulator_random(s.rng) % (f.delay_jitter_ms * 1000ULL + 1);
  c.due = now + delay;
  // Frames leave in the order they were answered, whatever their jitter.
  if (!s.tx.empty()) c.due = std::max(c.due, s.tx.back().due);
  s.tx_bytes += c.bytes.size();
  s.tx.push_back(std::move(c));
}

// True once the connection has seen more good frames than it may answer.
bool silenced(const emulator_server& s) {
  const std::int64_t limit = s.faults.silent_after;
  return limit >= 0 && s.frames_in > static_cast<std::uint64_t>(limit);
}

// Applies the connection faults to one good frame, then answers it.
void handle_frame(emulator_server& s, const router_message& req, us_time_t now) {
  const emulator_faults& f = s.faults;
  ++s.frames_in;
  if (s.opt.verbose) diag("%s\n", server_frame_line("recv", req).c_str());
  if ((f.close_after > 0 && s.frames_in >= f.close_after) || one_in(s, f.close_random)) {
    if (s.opt.verbose) diag("fault close\n");
    drop_client(s, "closed by fault");
    return;
  }
  if (silenced(s)) {
    if (s.opt.verbose) diag("fault silent\n");
    return;
  }
  if (f.ack_only) {
    router_message ack;
    ack.ack = true;
    queue_frame(s, ack, now);
    return;
  }
  // A switcher slow to answer the handshake; the answers after it keep their order.
  const bool handshake = router_request_is(req, "BK") && req.parameters.empty();
  const us_time_t from = now + (handshake ? f.handshake_delay_ms * 1000ULL : 0);
  for (const router_message& m : emulator_answer(s.cfg, s.sw, req)) queue_frame(s, m, from);
}

void read_client(emulator_server& s, us_time_t now) {
  char buf[read_chunk];
  const ssize_t r = read(s.client_fd, buf, sizeof buf);
  if (r == 0) {
    drop_client(s, "closed");
    return;
  }
  if (r < 0) {
    if (errno == EAGAIN || errno == EINTR) return;
    // A client going away is routine here, not a failure of the emulator.
    if (s.opt.verbose) diag("client error: %s\n", std::strerror(errno));
    drop_client(s, "closed");
    return;
  }
  pcap_received(buf, static_cast<std::size_t>(r));
  std::vector<splitter_item> items;
  splitter_feed(s.rx, buf, static_cast<std::size_t>(r), items);
  for (const splitter_item& item : items) {
    if (s.client_fd < 0) return;  // a fault closed it; the rest is gone with it
    if (item.good) {
      handle_frame(s, item.msg, now);
      continue;
    }
    if (s.opt.verbose) diag("reject %s\n", item.reason);
    if (silenced(s)) continue;
    router_message nak;
    nak.nak = true;
    nak.nakerr = 1;
    queue_frame(s, nak, now);
  }
}

void write_client(emulator_server& s, us_time_t now) {
  while (s.client_fd >= 0 && !s.tx.empty() && s.tx.front().due <= now) {
    server_chunk& c = s.tx.front();
    const std::size_t len = s.faults.split_writes ? 1 : c.bytes.size() - c.sent;
    const ssize_t w = send(s.client_fd, c.bytes.data() + c.sent, len, MSG_NOSIGNAL);
    if (w < 0) {
      if (errno == EAGAIN || errno == EINTR) return;
      if (s.opt.verbose) diag("client error: %s\n", std::strerror(errno));
      drop_client(s, "closed");
      return;
    }
    pcap_sent(c.bytes.data() + c.sent, static_cast<std::size_t>(w));
    c.sent += static_cast<std::size_t>(w);
    s.tx_bytes -= static_cast<std::size_t>(w);
    if (c.sent == c.bytes.size()) s.tx.pop_front();
  }
}

void accept_client(emulator_server& s, us_time_t now) {
  const int fd = accept4(s.listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
      diag("accept failed: %s\n", std::strerror(errno));
    }
    return;
  }
  if (now < s.refuse_until || now < s.chaos_refuse_until) {
    // A zero linger time makes close() reset the connection at once.
    const linger reset{1, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(fd);
    if (s.opt.verbose) diag("client refused\n");
    return;
  }
  const int one = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  s.client_fd = fd;
  pcap_connected(fd);
  if (s.opt.verbose) diag("client connected\n");
  if (s.opt.rename_after_ms >= 0 && !s.renamed && s.rename_at == 0) {
    s.rename_at = now + static_cast<us_time_t>(s.opt.rename_after_ms) * 1000 + 1;
  }
}

// The timed rename: the first destination and the first source get new names.
void rename_now(emulator_server& s) {
  s.renamed = true;
  s.rename_at = 0;
  if (!s.sw.output_names.empty()) {
    const std::string name = ("RENAMED " + s.sw.output_names[0]).substr(0, emulator_max_name);
    if (emulator_rename(s.cfg, s.sw, true, s.cfg.output_base, name) && s.opt.verbose) {
      diag("rename output %u %s\n", s.cfg.output_base, name.c_str());
    }
  }
  const std::string name = ("RENAMED " + s.sw.input_names[0]).substr(0, emulator_max_name);
  if (emulator_rename(s.cfg, s.sw, false, s.cfg.input_base, name) && s.opt.verbose) {
    diag("rename input %u %s\n", s.cfg.input_base, name.c_str());
  }
}

// Starts the next chaos slice when the current one is over.
void chaos_step(emulator_server& s, us_time_t now) {
  if (!s.chaos_on || now < s.chaos_until) return;
  const chaos_slice slice = chaos_next_slice(s.chaos_rng, s.opt.chaos_slice_ms);
  s.chaos_until = now + slice.length_us;
  s.faults = slice.faults;
  s.chaos_refuse_until = slice.refuse ? s.chaos_until : 0;
  if (s.opt.verbose) {
    diag("chaos %s %llu\n", chaos_mode_name(slice.mode),
         static_cast<unsigned long long>(slice.length_us / 1000));
  }
  if (slice.drop_now) drop_client(s, "closed by fault");
}

// The controls that act on the server rather than on the switcher's state:
// "chaos on", "chaos off" and "drop" (close the client's connection now).
// False when line is none of them.
bool server_control(emulator_server& s, std::string line, std::string& out) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line == "chaos on" || line == "chaos off") {
    server_set_chaos(s, line == "chaos on");
  } else if (line == "drop") {
    drop_client(s, "closed by control");
  } else {
    return false;
  }
  out += "ok\n";
  return true;
}

void run_control(emulator_server& s) {
  std::string out;
  if (!server_control(s, s.stdin_line, out)) control_line(s.cfg, s.sw, s.stdin_line, out, s.quit);
  s.stdin_line.clear();
  std::fputs(out.c_str(), stdout);
  std::fflush(stdout);
}

void read_stdin(emulator_server& s) {
  char buf[read_chunk];
  const ssize_t r = read(0, buf, sizeof buf);
  if (r < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (r <= 0) {
    // A last line without its end is a control too. Without controls the
    // emulator goes on answering; it stops on a signal.
    if (!s.stdin_line.empty()) run_control(s);
    s.stdin_open = false;
    return;
  }
  for (ssize_t i = 0; i < r; ++i) {
    if (buf[i] != '\n') {
      // An over-long line is cut; the control then reports it as not understood.
      if (s.stdin_line.size() < control_max_line) s.stdin_line.push_back(buf[i]);
      continue;
    }
    run_control(s);
  }
}

}  // namespace

bool server_open(emulator_server& s) {
  std::string error;
  if (!emulator_init(s.cfg, s.sw, error)) {
    diag("switcher_emulator: %s\n", error.c_str());
    return false;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  if (inet_pton(AF_INET, s.opt.bind_address.c_str(), &addr.sin_addr) != 1) {
    diag("switcher_emulator: bind address \"%s\" is not a numeric IPv4 address\n",
         s.opt.bind_address.c_str());
    return false;
  }
  if (s.opt.port > 65535) {
    diag("switcher_emulator: port %u is out of range\n", s.opt.port);
    return false;
  }
  addr.sin_port = htons(static_cast<std::uint16_t>(s.opt.port));
  s.listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (s.listen_fd < 0) {
    diag("switcher_emulator: socket: %s\n", std::strerror(errno));
    return false;
  }
  const int one = 1;
  (void)setsockopt(s.listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  socklen_t len = sizeof addr;
  if (bind(s.listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(s.listen_fd, 4) != 0 ||
      getsockname(s.listen_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    diag("switcher_emulator: cannot listen on %s port %u: %s\n", s.opt.bind_address.c_str(),
         s.opt.port, std::strerror(errno));
    server_close(s);
    return false;
  }
  s.port = ntohs(addr.sin_port);
  s.rng = s.opt.faults.seed;
  s.faults = s.opt.faults;
  s.chaos_rng = chaos_seed(s.opt.faults.seed);
  if (s.opt.chaos) server_set_chaos(s, true);
  const us_time_t now = monotonic_now_us();
  s.refuse_until = s.opt.faults.refuse_ms > 0 ? now + s.opt.faults.refuse_ms * 1000ULL : 0;
  s.stdin_open = s.opt.control_stdin;
  return true;
}

void server_step(emulator_server& s, int max_wait_ms) {
  us_time_t now = monotonic_now_us();
  us_time_t wake = now + static_cast<us_time_t>(std::max(max_wait_ms, 0)) * 1000;
  fd_set rd;
  fd_set wr;
  FD_ZERO(&rd);
  FD_ZERO(&wr);
  int max_fd = -1;
  auto watch = [&max_fd](int fd, fd_set& set) {
    FD_SET(fd, &set);
    max_fd = std::max(max_fd, fd);
  };
  if (s.client_fd < 0 && s.listen_fd >= 0) watch(s.listen_fd, rd);
  if (s.client_fd >= 0) {
    if (s.tx_bytes < max_tx_bytes) watch(s.client_fd, rd);
    // Due bytes wait for the socket to take them; later ones for their time.
    if (!s.tx.empty() && s.tx.front().due <= now) watch(s.client_fd, wr);
    if (!s.tx.empty() && s.tx.front().due > now) wake = std::min(wake, s.tx.front().due);
  }
  if (s.stdin_open) watch(0, rd);
  if (s.rename_at != 0) wake = std::min(wake, std::max(s.rename_at, now));
  if (s.chaos_on) wake = std::min(wake, std::max(s.chaos_until, now));
  const us_time_t wait = wake - now;
  timeval tv{static_cast<time_t>(wait / 1000000), static_cast<suseconds_t>(wait % 1000000)};
  const int n = select(max_fd + 1, &rd, &wr, nullptr, &tv);
  if (n < 0) {
    if (errno != EINTR) diag("select failed: %s\n", std::strerror(errno));
    return;
  }
  now = monotonic_now_us();
  // A new slice applies to everything this step handles, the accept included.
  chaos_step(s, now);
  const int client = s.client_fd;  // the descriptor the sets were filled for
  if (client < 0 && s.listen_fd >= 0 && FD_ISSET(s.listen_fd, &rd)) accept_client(s, now);
  if (client >= 0 && FD_ISSET(client, &rd)) read_client(s, now);
  if (s.client_fd >= 0 && s.client_fd == client) write_client(s, now);
  if (s.stdin_open && FD_ISSET(0, &rd)) read_stdin(s);
  if (s.rename_at != 0 && now >= s.rename_at) rename_now(s);
}

void server_set_chaos(emulator_server& s, bool on) {
  s.chaos_on = on;
  s.chaos_until = 0;
  if (on) return;
  s.faults = s.opt.faults;
  s.chaos_refuse_until = 0;
  if (s.opt.verbose) diag("chaos off\n");
}

void server_close(emulator_server& s) {
  drop_client(s, "closed");
  if (s.listen_fd >= 0) close(s.listen_fd);
  s.listen_fd = -1;
}

std::string server_frame_line(const char* direction, const router_message& m) {
  std::string line = direction;
  if (m.ack) return line + " ACK";
  if (m.nak) {
    char code[16];
    std::snprintf(code, sizeof code, " NAK %04X", static_cast<unsigned>(m.nakerr) & 0xFFFFu);
    return line + code;
  }
  line += ' ';
  line.append(m.request, strnlen(m.request, 2));
  for (const std::string& p : m.parameters) line += ' ' + p;
  return line;
}
