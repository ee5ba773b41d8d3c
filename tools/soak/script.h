#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "base/clock.h"
#include "parent/message.h"

// The scripted parent: random route requests and report requests for the
// backend, the bookkeeping that matches every reply to its request by id,
// and the routes the backend has reported.

// The switcher the soak sets up on the emulator. Destinations count from 1,
// as the backend's status queries assume; sources from 0, so that switcher
// numbers and positions differ on one side and agree on the other.
struct soak_layout {
  std::uint32_t outputs = 32;
  std::uint32_t inputs = 32;
  std::uint32_t output_base = 1;
  std::uint32_t input_base = 0;
};

// A request that waits for its reply.
struct soak_request {
  std::string command;  // the reply's expected command: "route output", or empty
  us_time_t sent = 0;
  std::string error;    // the reply's expected error text; empty for a valid request
};

struct soak_parent {
  std::uint64_t rng = 1;
  std::uint64_t next_id = 1;
  std::map<std::string, soak_request> pending;  // by id
  std::map<std::string, std::uint64_t> sent;    // requests sent, by kind
  std::uint64_t answered = 0;
  us_time_t longest_wait = 0;                   // request to reply, longest seen
  std::map<std::int64_t, std::int64_t> routes;  // output -> input position (-1: none)
  std::uint64_t routing_reports = 0;
  std::uint64_t full_reports = 0;   // routing reports that listed every output
  std::uint64_t info_reports = 0;
  std::uint64_t junk = 0;           // malformed records and stray bytes sent
  std::uint64_t floods = 0;         // bursts of "report outputs" requests sent
  std::string failure;              // the first thing found wrong; empty while all is well
};

// Builds the next request, chosen at random (mostly "add", then "flush",
// "discard" and the two reports), notes it as pending and returns its text.
// A misbehaving parent: now and then the text starts with a record the
// backend must drop or refuse (unknown types and commands, missing or empty
// fields, a 64 KiB value) or stray bytes, and some requests end their lines
// in CR LF. Refused records wait for their error reply like requests.
[[nodiscard]] std::string script_next_request(soak_parent& p, const soak_layout& layout,
                                              us_time_t now);

// A burst of n "report outputs" requests at once, each noted as pending, as
// a parent that asks faster than one output status loop runs.
[[nodiscard]] std::string script_report_flood(soak_parent& p, std::uint64_t n, us_time_t now);

// Takes one record the backend wrote: a reply settles its request (a reply
// for no pending request, or of the wrong shape, is a failure); a routing
// report updates the routes; the other reports are counted.
void script_take_record(soak_parent& p, const soak_layout& layout, const parent_message& record,
                        us_time_t now);

// The total number of requests sent.
[[nodiscard]] std::uint64_t script_sent_total(const soak_parent& p);

// The id of the request that has waited longest, or "" when none waits; its
// wait so far goes to waited.
[[nodiscard]] std::string script_oldest_pending(const soak_parent& p, us_time_t now,
                                                us_time_t& waited);
