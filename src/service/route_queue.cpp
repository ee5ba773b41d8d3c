#include "service/route_queue.h"

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "base/config.h"
#include "base/diag.h"
#include "base/flags.h"
#include "model/tables.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "router/protocol.h"
#include "router/message.h"

namespace {

// The queues and their timers. The process starts from these values and the
// test reset returns to them, so the two cannot drift apart.
struct route_queue_state {
  // Changes the parent added and has not flushed yet.
  std::deque<route_change> queued;
  // Flushed changes not yet taken by a batch.
  std::deque<route_change> send_queue;
  // No batch starts while the clock reads earlier than this; 0: none scheduled.
  us_time_t flush_allow_at = 0;
  // When reached, everything still waiting is dropped; 0: not armed. It is
  // also the deadline of every exchange of the batch running.
  us_time_t queue_timeout_at = 0;
  // Batches are numbered as they take their slots. A batch that starts while
  // another waits on the switcher holds changes flushed after that one took
  // its own, so the higher number always carries the newer changes.
  std::uint64_t batches_started = 0;
  // Per output, the number of the newest batch that sent it a "TI"; 0: none.
  std::vector<std::uint64_t> newest_sender;
};
route_queue_state q;

constexpr us_time_t pacing_step_us = 66'000;
constexpr us_time_t pacing_cap_us = 750'000;
constexpr us_time_t queue_timeout_us = 5'000'000;
// Timers this far ahead cannot have been set by a batch: they are cleared.
constexpr us_time_t queue_timeout_sanity_us = 10'000'000;
constexpr us_time_t flush_allow_sanity_us = 1'000'000;

bool link_ready_for_batch() {
  return connection_ready() && !flag_is_set(process_flag::sync_needed);
}

// Empties the send queue into one slot per active output, a later change for
// an output replacing an earlier one; changes for other outputs are dropped.
std::vector<route_change> take_slots(std::size_t slot_count) {
  std::vector<route_change> slots(slot_count);
  while (!q.send_queue.empty()) {
    const route_change c = q.send_queue.front();
    q.send_queue.pop_front();
    if (c.output >= 0 && static_cast<std::size_t>(c.output) < slot_count) slots[c.output] = c;
  }
  return slots;
}

// One "TI" exchange: the positions plus the switcher's bases, added as
// unsigned 32-bit numbers, so input -1 becomes one below the input base.
void send_take_input(const route_change& c) {
  const std::uint32_t dest = static_cast<std::uint32_t>(c.output) +
                             static_cast<std::uint32_t>(output_base());
  const std::uint32_t src = static_cast<std::uint32_t>(c.input) +
                            static_cast<std::uint32_t>(input_base());
  std::vector<router_message> response;
  // Failures are logged and the connection closed by the exchange; the batch
  // goes on regardless, the switcher's answer changes nothing here.
  static_cast<void>(
      request_reply(response, "TI", {hex_parameter(dest), hex_parameter(src)}, q.queue_timeout_at));
}

// Puts c at the back of queue in place of any change for the same output: a
// flush keeps only the newest change per output anyway, so each queue holds
// at most one per output however many the parent adds.
void put_newest(std::deque<route_change>& queue, const route_change& c) {
  const auto same_output = [&c](const route_change& old) { return old.output == c.output; };
  const auto old = std::find_if(queue.begin(), queue.end(), same_output);
  if (old != queue.end()) queue.erase(old);
  queue.push_back(c);
}

}  // namespace

void add_route_change(const route_change& change) { put_newest(q.queued, change); }

void discard_route_changes() { q.queued.clear(); }

void flush_route_changes() {
  while (!q.queued.empty()) {
    put_newest(q.send_queue, q.queued.front());
    q.queued.pop_front();
  }
  // Kept, a flush made while the link is down goes out when it is back, however
  // much later; a parent that cannot know when that will be may have it dropped.
  if (drop_flushes_while_down() && !link_ready_for_batch() && !q.send_queue.empty()) {
    diag("<WARN>Dropping %zu route changes flushed while the link is down\n", q.send_queue.size());
    q.send_queue.clear();
    return;
  }
  send_route_changes();
}

void send_route_changes() {
  const std::uint64_t slot_count = active_outputs();
  if (!link_ready_for_batch() || slot_count == 0 || q.send_queue.empty()) return;

  const us_time_t start = monotonic_now_us();
  if (q.flush_allow_at > start) {
    diag("<DBG>Route changes too soon, will flush later\n");
    return;
  }
  q.flush_allow_at = start;

  // The slot table is this batch's own: exchanges below serve the parent, and
  // a nested flush fills the send queue afresh and may run a batch of its own.
  const std::vector<route_change> slots = take_slots(static_cast<std::size_t>(slot_count));
  const std::uint64_t batch = ++q.batches_started;
  if (q.newest_sender.size() < slots.size()) q.newest_sender.resize(slots.size(), 0);
  q.queue_timeout_at = monotonic_now_us() + queue_timeout_us;

  for (const route_change& c : slots) {
    if (c.output < 0 || static_cast<std::size_t>(c.output) >= slots.size() || c.input < -1) {
      continue;
    }
    // A newer batch, run while this one waited, has sent this output its
    // newer change: ours would arrive last and undo it. A skipped slot sends
    // nothing, so it adds nothing to the pacing either.
    if (q.newest_sender[c.output] > batch) continue;
    q.newest_sender[c.output] = batch;
    send_take_input(c);
    q.flush_allow_at += pacing_step_us;
  }
  // The pacing counts from the batch's start, and never holds longer than
  // the cap even for a large batch.
  if (start + pacing_cap_us < q.flush_allow_at) q.flush_allow_at = start + pacing_cap_us;
}

void delayed_flush_step() {
  const us_time_t now = monotonic_now_us();
  if (q.queue_timeout_at >= now + queue_timeout_sanity_us) {
    diag("<WARN>Queue timeout too far into the future\n");
    q.queue_timeout_at = 0;
  }
  if (q.flush_allow_at >= now + flush_allow_sanity_us) {
    diag("<WARN>Flush allow too far into the future\n");
    q.flush_allow_at = 0;
  }
  if (q.queue_timeout_at != 0 && now >= q.queue_timeout_at) {
    // Five seconds after a batch started, nothing still waiting is current.
    q.queued.clear();
    q.send_queue.clear();
    q.queue_timeout_at = 0;
    return;
  }
  if (!q.send_queue.empty() && q.flush_allow_at != 0 && q.flush_allow_at <= now) {
    diag("<DBG>Now sending delayed route changes\n");
    send_route_changes();
  }
}

bool send_queue_empty() { return q.send_queue.empty(); }
us_time_t flush_allow() { return q.flush_allow_at; }
us_time_t queue_timeout() { return q.queue_timeout_at; }

const std::deque<route_change>& queued_route_changes() { return q.queued; }

void set_flush_allow_for_test(us_time_t t) { q.flush_allow_at = t; }
void set_queue_timeout_for_test(us_time_t t) { q.queue_timeout_at = t; }

void reset_route_queues() { q = route_queue_state{}; }
