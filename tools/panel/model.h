#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/clock.h"
#include "parent/message.h"
#include "parent_client/report_tables.h"

// What the panel knows and shows every browser: the backend's latest reports
// (the parent client's tables), the takes it sent and the switcher has not confirmed yet, the
// destinations locked from the panel, the link's state as the diagnostic
// lines tell it, the latest diagnostic lines, and how the backend ended.
// Every change comes back as events, JSON texts for the browsers. Text from
// the backend is bytes: nothing here throws on any of them.

// How long the switcher has to confirm a take before the panel says it did not.
constexpr us_time_t panel_confirm_us = 10'000'000;
// Diagnostic lines kept for a browser that connects: this many notes,
// warnings and errors, and apart from them this many debug lines, so that
// polling's debug lines never push the others out.
constexpr std::size_t panel_diag_lines = 200;

struct panel_pending {
  long input = 0;
  std::string by;            // the browser that took it
  us_time_t since = 0;
  bool unconfirmed = false;  // not confirmed within panel_confirm_us, or refused
  std::string refused;       // the switcher's code when it refused the take
};

struct panel_diag {
  std::string level;  // "err", "warn", "note" or "dbg"
  std::string text;   // as UTF-8 (see panel_text)
};

struct panel_model {
  // The backend's reports as the parent client keeps them: the one copy,
  // which the model reads and never writes.
  const report_tables* tables = nullptr;
  std::map<long, panel_pending> pending;  // output -> the take sent for it
  std::set<long> locks;
  // "connecting", "synchronising", "connected", "lost" or "ended".
  std::string link = "connecting";
  // Wall-clock milliseconds when the tally was last known to be the
  // switcher's: the moment the link left "connected" (0: never connected).
  std::int64_t tally_at = 0;
  std::deque<panel_diag> diags;       // notes, warnings, errors
  std::deque<panel_diag> debug_diags;  // debug lines
  std::string ended;  // how the backend ended; empty while it runs
};

// One event for the browsers; debug ones go only to those that asked.
struct panel_event {
  std::string json;
  bool debug = false;
};
using panel_events = std::vector<panel_event>;

// Bytes as UTF-8 text: valid UTF-8 sequences stay as they are, and every
// other byte stands for its Latin-1 character (0xE9 reads as "é").
[[nodiscard]] std::string panel_text(const std::string& bytes);

// A record the backend wrote, once the tables hold it (changes: the routes
// it changed): the reports' news, and a routing report settles the takes for
// the outputs it lists.
[[nodiscard]] panel_events model_read_record(panel_model& m, const parent_message& record,
                                             const std::vector<route_seen>& changes);

// A diagnostic line of the backend: the link's state changes as it says.
[[nodiscard]] panel_events model_read_diag(panel_model& m, const std::string& line);

// Takes older than panel_confirm_us and still not confirmed are marked so.
[[nodiscard]] panel_events model_expire(panel_model& m, us_time_t now);

[[nodiscard]] panel_events model_backend_ended(panel_model& m, const std::string& how);

// Why a request cannot be done: conflict when the panel's state forbids it
// (the link not connected, a destination locked), else the request is wrong.
struct panel_refusal {
  bool conflict = false;
  std::string reason;  // empty: it can be done
};

// Whether a salvo (output -> input) can go to the backend: the link
// connected, every position among the active ones, no destination locked
// (every locked one named).
[[nodiscard]] panel_refusal model_check_salvo(const panel_model& m,
                                              const std::map<long, long>& takes);

// Marks a salvo as sent by the browser by.
[[nodiscard]] panel_events model_takes_sent(panel_model& m, const std::map<long, long>& takes,
                                            const std::string& by, us_time_t now);

// The reason a lock cannot change, or "", and the change.
[[nodiscard]] std::string model_check_lock(const panel_model& m, long output);
[[nodiscard]] panel_events model_set_lock(panel_model& m, long output, bool locked);

// The switcher refused the take sent for output, with code: marked at once,
// kept like an unconfirmed one until dismissed or the output is reported.
[[nodiscard]] panel_events model_take_refused(panel_model& m, long output, const std::string& code);

// Clears the mark of a take the switcher did not confirm; "" or the reason.
[[nodiscard]] std::string model_dismiss(panel_model& m, long output, panel_events& events);

// An error reply to a request the panel sent.
[[nodiscard]] panel_events model_error(const std::string& text);

// "OUT 9 (8)": an output's (or input's) name and position, for messages.
[[nodiscard]] std::string model_label(const panel_model& m, bool output, long position);

// Everything a browser that connects needs, as one "state" event; with
// debug, the debug lines kept too.
[[nodiscard]] std::string model_state(const panel_model& m, bool debug);
