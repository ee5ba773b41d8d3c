#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "base/clock.h"
#include "router/protocol.h"
#include "switcher_emulator/chaos.h"
#include "switcher_emulator/emulator.h"
#include "switcher_emulator/splitter.h"

// The emulator on the network: one listening socket, one client at a time,
// a select-based step, stdin controls and deterministic fault injection.

struct emulator_server_options {
  std::string bind_address = "127.0.0.1";  // numeric IPv4 only
  std::uint32_t port = default_router_port;  // 0: an ephemeral port
  std::int64_t rename_after_ms = -1;       // after the first client; -1: never
  bool verbose = false;                    // one stderr line per frame and event
  bool control_stdin = false;              // read control lines from descriptor 0
  emulator_faults faults;                  // set aside while chaos is on
  bool chaos = false;                      // start with chaos on
  std::uint32_t chaos_slice_ms = 3000;     // mean length of a chaos slice
  std::string pcap_path;                   // record the client traffic here; empty: no
  std::string backend_config_path;         // write a backend configuration naming us here
};

// Bytes waiting for the client; written from sent onwards once due.
struct server_chunk {
  us_time_t due = 0;
  std::string bytes;
  std::size_t sent = 0;
};

struct emulator_server {
  emulator_server_options opt;
  emulator_config cfg;
  emulator_state sw;
  int listen_fd = -1;
  int client_fd = -1;
  std::uint16_t port = 0;       // the port actually listened on
  frame_splitter rx;
  std::deque<server_chunk> tx;  // in due order
  std::size_t tx_bytes = 0;     // unsent bytes in tx
  std::uint64_t rng = 0;
  emulator_faults faults;       // in force: opt.faults, or the chaos slice's
  bool chaos_on = false;
  std::uint64_t chaos_rng = 0;  // draws the slices, and nothing else
  us_time_t chaos_until = 0;    // end of the current slice; 0: draw one now
  us_time_t chaos_refuse_until = 0;
  std::uint64_t frames_in = 0;  // good frames received on this connection
  us_time_t refuse_until = 0;
  us_time_t rename_at = 0;      // 0: not armed
  bool renamed = false;
  bool stdin_open = false;
  std::string stdin_line;       // control text up to the next newline
  bool quit = false;            // set by the "quit" control
};

// Sets up the switcher from s.cfg and listens as s.opt says; s.port is then
// the port listened on. False, with a line on stderr, on any failure.
[[nodiscard]] bool server_open(emulator_server& s);

// One pass: waits at most max_wait_ms for the client, new connections and
// stdin, and handles what arrived and what fell due.
void server_step(emulator_server& s, int max_wait_ms);

// Turns chaos on (a first slice is drawn at the next step) or off (the fault
// options are back in force at once, and nobody is refused any more).
void server_set_chaos(emulator_server& s, bool on);

// Closes the client and the listening socket.
void server_close(emulator_server& s);

// The verbose line for a frame: direction ("recv", "send"), the letters and
// the parameters, single blanks; "ACK" or "NAK <code>" for those frames.
[[nodiscard]] std::string server_frame_line(const char* direction, const router_message& m);
