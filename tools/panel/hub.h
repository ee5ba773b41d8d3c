#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "parent/message.h"

// The panel's state, shared between the main thread, which drives the backend,
// and the web server's threads, behind one lock: the model, the events every
// browser's stream sends in order, and the takes waiting for the main thread,
// which a pipe wakes.

// Takes, output -> input, sent to the backend as one batch: an "add" each,
// then one "flush".
using panel_salvo = std::map<long, long>;

// The main thread's side.

// Makes the wake pipe; false when it cannot.
[[nodiscard]] bool hub_open();
// Readable while takes wait for the main thread.
[[nodiscard]] int hub_wake_fd();
void hub_take_record(const parent_message& record);
void hub_take_diag(const std::string& line);
void hub_reply_error(const std::string& text);
void hub_backend_ended(const std::string& how);
// Marks takes the switcher did not confirm in time.
void hub_tick();
// The salvos waiting, oldest first; empties the queue and the pipe.
[[nodiscard]] std::vector<panel_salvo> hub_take_salvos();
// Ends every stream: their waits return at once from now on.
void hub_stop();

// The web server's side.

// Everything a browser needs, and the number of the first event after it.
[[nodiscard]] std::string hub_state(std::uint64_t& next);

struct hub_news {
  std::vector<std::string> events;  // from the number asked for on, in order
  std::uint64_t next = 0;           // the number to ask for next time
  bool missed = false;              // events were gone already: send the state afresh
  bool stopping = false;
};
// Waits up to timeout_ms for events numbered next or later.
[[nodiscard]] hub_news hub_wait(std::uint64_t next, int timeout_ms);

// Checks a salvo, marks it pending and queues it for the main thread; the
// reason it cannot go, or "" when it went.
[[nodiscard]] std::string hub_request_salvo(const panel_salvo& salvo);
[[nodiscard]] std::string hub_request_lock(long output, bool locked);
