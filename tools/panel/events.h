#pragma once

#include <cstdint>
#include <string>

#include "panel/model.h"

// The events every browser's stream sends, in order, numbered from 0: each
// stream keeps the number of the next one it wants. Only the newest are kept
// (bounded in count and bytes); a stream that fell further behind starts
// again from the whole state.

// Appends events; they are numbered on from the last.
void events_publish(const panel_events& fresh);

// The number the next published event will carry.
[[nodiscard]] std::uint64_t events_next();

// Appends to out, as Server-Sent Events, the events numbered from next on
// (debug ones only when debug), at most about max_bytes of them, and moves
// next past what it took. False when some of them are gone already: the
// stream must start again from the state.
[[nodiscard]] bool events_since(std::uint64_t& next, bool debug, std::size_t max_bytes,
                                std::string& out);

// One event as a Server-Sent Events message.
[[nodiscard]] std::string events_frame(const std::string& json);
