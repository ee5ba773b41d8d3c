#pragma once

#include <map>
#include <string>
#include <vector>

#include "parent_client/client.h"
#include "parent_client/options.h"

// The console's session: the backend as its child (and the switcher emulator
// when asked), the commands a person types, and what the backend says, shown
// as it arrives.

struct console_options {
  parent_options parent;  // the backend, its configuration or the emulator
  int reply_ms = 15000;   // how long a request waits for its reply
};

// Starts the emulator (when asked) and the backend, and sets SIGINT, SIGTERM
// and SIGHUP to end the session. False, with the reason printed, when one of
// them could not start.
[[nodiscard]] bool session_start(const console_options& o);

// Shows what the backend (and the emulator) wrote since the last call.
void session_show();

// Takes one line typed or read: echoes it (not on a terminal), and takes it
// when it belongs to a raw record. False when it is a command to run.
[[nodiscard]] bool session_take_line(const std::string& line);

// "> ", or "raw> " while a raw record is being typed.
[[nodiscard]] std::string session_prompt();

// True once the session should end: "quit", a signal, or the backend or
// the emulator ended by itself (whose status is then shown).
[[nodiscard]] bool session_over();

// Stops the backend as a parent does and the emulator, shows their last
// words, and returns the exit status: 0; 1 when a command was refused, a
// request got an error reply or none in time, or the backend or the emulator
// ended by itself; 2 when the backend ended before it wrote a record, as one
// that could not start does.
[[nodiscard]] int session_finish();

// What the commands do with the session.

// Shows "error: text" and remembers that the session failed.
void console_error(const std::string& text);

// Sends req with a fresh id and waits for its reply, showing what arrives
// meanwhile; shows "ok: what (id N)" or the error. True on a reply without
// error.
bool console_request(const parent_message& req, const std::string& what);

// Sends a raw record's text, whose "*ID" is id, and waits for its reply as
// console_request does.
bool console_raw_request(const std::string& text, const std::string& id);

// Sends text as it stands.
void console_send_text(const std::string& text);

// The latest reports.
[[nodiscard]] const report_tables& console_tables();

// The lowest diagnostic level shown.
void console_set_level(diag_level level);

// The next lines, up to an empty one, are a raw record.
void console_start_raw();

void console_quit();

// Waits up to timeout_ms, showing what arrives, until the backend has reported
// the names of the inputs and outputs and their routes (none with no
// outputs). False when it did not.
bool console_wait_tables(int timeout_ms);

// Waits up to the request timeout, showing what arrives, until the backend
// has reported the names of the outputs (output: true) or the inputs. The
// counts are the switcher's only from then on. False when they did not come.
bool console_wait_names(bool output);

// Waits up to timeout_ms, showing what arrives, until the routing reports
// route every output in expected (output -> input) as expected; with none
// expected, until a routing report changes a route. False when they did not,
// with the outputs still routed otherwise shown.
bool console_wait_routes(const std::map<long, long>& expected, int timeout_ms);

// True once the backend has ended; a wait that ended with it says nothing more.
[[nodiscard]] bool console_backend_ended();

// Waits up to timeout_ms, showing what arrives, for the next report of a
// kind: "info", "inputs", "outputs" (names) or "routes". False when none came.
bool console_wait_report(const std::string& command, int timeout_ms);

// Shows what arrives for ms.
void console_sleep(int ms);

// Sends a control line to the emulator the console started and waits for its
// answer; false (an error shown) without one, or on "error ...".
bool console_emulator(const std::string& control);
