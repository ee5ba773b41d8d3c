#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/clock.h"
#include "parent/message.h"
#include "parent_client/tables.h"

// What the panel knows and shows every browser: the backend's latest reports
// as tables, the takes it sent and the switcher has not confirmed yet, the
// destinations locked from the panel, the link's state as the diagnostic
// lines tell it, the latest diagnostic lines, and how the backend ended.
// Every change comes back as events, JSON texts for the browsers.

// How long the switcher has to confirm a take before the panel says it did not.
constexpr us_time_t panel_confirm_us = 10'000'000;
// Diagnostic lines kept for a browser that connects.
constexpr std::size_t panel_diag_lines = 200;

struct panel_pending {
  long input = 0;
  us_time_t since = 0;
  bool unconfirmed = false;  // not confirmed within panel_confirm_us
};

struct panel_diag {
  std::string level;  // "err", "warn", "note" or "dbg"
  std::string text;
};

struct panel_model {
  report_tables tables;
  std::map<long, panel_pending> pending;  // output -> the take sent for it
  std::set<long> locks;
  // "connecting", "synchronising", "connected", "lost" or "ended".
  std::string link = "connecting";
  std::deque<panel_diag> diags;
  std::string ended;  // how the backend ended; empty while it runs
};

using panel_events = std::vector<std::string>;

// A record the backend wrote: reports update the tables, and a routing report
// confirms the takes it shows done.
[[nodiscard]] panel_events model_take_record(panel_model& m, const parent_message& record);

// A diagnostic line of the backend: the link's state changes as it says.
[[nodiscard]] panel_events model_take_diag(panel_model& m, const std::string& line);

// Takes older than panel_confirm_us and still not confirmed are marked so.
[[nodiscard]] panel_events model_expire(panel_model& m, us_time_t now);

[[nodiscard]] panel_events model_backend_ended(panel_model& m, const std::string& how);

// The reason a take cannot go to the backend, or "" when it can: positions
// below the active counts, the destination not locked.
[[nodiscard]] std::string model_check_take(const panel_model& m, long output, long input);

// Marks a take as sent.
[[nodiscard]] panel_events model_takes_sent(panel_model& m, const std::map<long, long>& takes,
                                            us_time_t now);

// The reason a lock cannot change, or "", and the change.
[[nodiscard]] std::string model_check_lock(const panel_model& m, long output);
[[nodiscard]] panel_events model_set_lock(panel_model& m, long output, bool locked);

// An error reply to a request the panel sent.
[[nodiscard]] panel_events model_error(const std::string& text);

// Everything a browser that connects needs, as one "state" event.
[[nodiscard]] std::string model_state(const panel_model& m);
