#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "base/clock.h"
#include "parent/message.h"
#include "parent_client/child.h"
#include "parent_client/report_tables.h"
#include "parent_client/temp_dir.h"

// The parent's side of the backend: it starts the backend as a child on
// pipes, sends requests with fresh ids and waits for their replies, keeps the
// latest reports as tables, hands out diagnostic lines with their level, and
// stops the backend as a parent does. The black-box tests, the soak, the
// benchmarks, the console and the panel all drive the backend through it.

// Diagnostic levels, lowest first; untagged lines (the command line, early
// start-up, stray switcher bytes) count as errors, so they are always shown.
enum class diag_level { err, warn, note, dbg };

struct client_diag {
  diag_level level = diag_level::err;
  std::string text;  // the whole line, tag included, without its "\n"
  us_time_t at = 0;  // when it was taken from the pipe
};

// One record the backend wrote.
struct client_record {
  std::string text;                // its lines, each with "\n", without the ending empty line
  parent_message msg;              // the same, parsed
  us_time_t at = 0;                // when its ending empty line was taken from the pipe
  std::vector<route_seen> changes;  // routes a routing report changed
};

// A take the switcher refused: the answer to its "TI" was an error reply or a
// NAK, as the backend's debug lines of each frame show.
struct refused_take {
  long output = -1;  // its position; -1 when its number is below the output base
  std::string code;  // the error reply's code ("04"), or "NAK" and the NAK's
};

struct parent_client {
  child_process child;
  std::deque<client_record> records;  // read and not yet taken, oldest first
  std::deque<client_diag> diags;      // read and not yet taken, oldest first
  std::deque<refused_take> refused;   // seen and not yet taken, oldest first
  // What the debug lines told so far: the first destination's number, and
  // the destination of a "TI" sent and not yet answered.
  std::int64_t output_base = -1;
  std::int64_t take_awaiting_answer = -1;
  report_tables tables;               // kept up to date as records are read
  std::uint64_t next_id = 1;          // the number in the next fresh "*ID"
  std::string partial_text;           // lines of the record being read
  parent_message partial;
};

// Starts the backend at path with args (argv[0] not included); false, with a
// line on our standard error, when it could not start. A non-empty wrapper
// (such as a tracer) is run instead, with the backend's path and args after it.
[[nodiscard]] bool client_start(parent_client& c, const std::string& path,
                                const std::vector<std::string>& args,
                                const std::vector<std::string>& wrapper = {});

// Moves whole lines the backend wrote into records and diags, updating the
// tables. Every client_wait... and client_pump calls it.
void client_take_output(parent_client& c);

// child_pump, then client_take_output.
void client_pump(parent_client& c, int timeout_ms);

// Queues text for the backend's input as it stands.
void client_send_text(parent_client& c, const std::string& text);

// Gives req a fresh "*ID", queues its text and returns the id.
std::string client_send(parent_client& c, parent_message req);

// Waits up to timeout_ms for the record "*TYPE=reply" with id and takes it
// out of records; false when none came.
[[nodiscard]] bool client_wait_reply(parent_client& c, const std::string& id, int timeout_ms,
                                     client_record& reply);

// client_send, then client_wait_reply.
[[nodiscard]] bool client_request(parent_client& c, const parent_message& req, int timeout_ms,
                                  client_record& reply);

// Takes the oldest record, waiting up to timeout_ms; false when none came.
[[nodiscard]] bool client_next_record(parent_client& c, int timeout_ms, client_record& record);

// Waits up to timeout_ms for a diagnostic line holding text and takes it and
// the lines before it; false when none came.
[[nodiscard]] bool client_wait_diag(parent_client& c, const std::string& text, int timeout_ms,
                                    client_diag& line);

// The route request of the parent channel: "add" (with from input and to
// output), "flush" or "discard".
[[nodiscard]] parent_message client_route_request(const std::string& queue, long input = -1,
                                                  long output = -1);

// The report request for what ("inputs" or "outputs").
[[nodiscard]] parent_message client_report_request(const std::string& what);

// The level of one diagnostic line, from its tag.
[[nodiscard]] diag_level client_diag_level(const std::string& line);

// Starts the switcher emulator at path on a free loopback port with extra
// options (emulator options, "--port 0" comes first) and waits up to
// timeout_ms for its first line. Returns the port it listens on, or "" (with
// a line on our standard error) when it did not come up. Its controls go to
// its standard input; it ends at once when stopped, not at end of input.
[[nodiscard]] std::string client_start_emulator(child_process& emu, const std::string& path,
                                                const std::vector<std::string>& extra,
                                                int timeout_ms);

// The configuration that points a backend at the emulator listening on port
// of address: the one place it is written (the emulator's --backend-config
// writes it through this).
[[nodiscard]] std::string client_emulator_config(const std::string& port,
                                                 const std::string& address = "127.0.0.1");

// client_start_emulator, then that configuration written into dir as
// "router.cfg"; returns the file's path (and the port into *port), or ""
// with a line on our standard error.
[[nodiscard]] std::string client_start_emulated(child_process& emu, const std::string& path,
                                                const std::vector<std::string>& options,
                                                const temp_dir& dir, int timeout_ms,
                                                std::string* port = nullptr);
