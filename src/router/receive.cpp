#include "router/receive.h"

#include <cstdint>
#include <deque>
#include <utility>

#include "base/diag.h"
#include "router/link_texts.h"
#include "router/protocol.h"

namespace {

enum class receive_state : std::int32_t { idle = 0, in_message = 1, skip_to_eot = 2 };

receive_state state = receive_state::idle;
router_message incoming;               // the message being assembled
std::deque<router_message> received;  // completed messages, oldest first
// Messages completed (queued or rejected) by the current receive_bytes call.
std::size_t completed = 0;

// The value of the leading hexadecimal digits of text, 0 when there are none.
// Accumulated as unsigned 32 bits, so overlong runs wrap; stored as signed.
std::int32_t leading_hex_value(const std::string& text) {
  std::uint32_t v = 0;
  for (char c : text) {
    const int d = hex_value(c);
    if (d < 0) break;
    v = v * 16 + static_cast<std::uint32_t>(d);
  }
  return static_cast<std::int32_t>(v);
}

// Every completed message, queued or rejected, is a sign of life; the
// connection learns of it from receive_bytes' count.
void finish_message() {
  reset_router_message(incoming);
  ++completed;
}

void complete_nak() {
  diag(link_nak_received, incoming.raw.c_str());
  incoming.nakerr = leading_hex_value(incoming.raw);
  received.push_back(std::move(incoming));
}

// Checks the checksum field at the end of raw; false (with its line) when the
// message must be dropped.
bool checksum_matches(const std::string& raw) {
  if (raw.size() < checksum_field_bytes) {
    diag("<DBG>Message rejected, no checksum field\n");
    return false;
  }
  const std::size_t covered = raw.size() - checksum_field_bytes;
  const unsigned computed = router_checksum(raw.data(), covered);
  // A character that is not a hexadecimal digit counts as 0.
  const int high = hex_value(raw[covered]);
  const int low = hex_value(raw[covered + 1]);
  const unsigned field = static_cast<unsigned>((high < 0 ? 0 : high) * 16 + (low < 0 ? 0 : low));
  if (field != computed) {
    diag("<DBG>Message rejected, invalid checksum (want=%02x got=%02x)\n", field, computed);
    return false;
  }
  return true;
}

// Parameters start at the first TAB from the fifth body byte on (anything
// between the command letters and it is ignored). Each TAB with at least one
// byte after it before the checksum field opens one parameter, which runs to
// the next TAB or the checksum field.
void split_parameters(router_message& msg) {
  const std::string& raw = msg.raw;
  const std::size_t end = raw.size() - checksum_field_bytes;
  std::size_t i = 4;
  while (i < end && raw[i] != tab) ++i;
  while (i + 1 < end) {
    const std::size_t start = i + 1;
    std::size_t stop = start;
    while (stop < end && raw[stop] != tab) ++stop;
    msg.parameters.emplace_back(raw, start, stop - start);
    i = stop;
  }
}

// Verifies and decodes a body that arrived after SOH, then queues it.
void complete_command() {
  diag(link_message_received, incoming.raw.c_str());
  if (!checksum_matches(incoming.raw)) return;

  // The header is protocol, sequence flag and two command letters, as far as
  // the body reaches; a body shorter than six bytes lends checksum characters.
  // Both letters were cleared when the message started, so a short body
  // leaves none from an earlier message.
  const std::string& raw = incoming.raw;
  incoming.protocol = raw[0];
  incoming.seq = raw[1];
  if (raw.size() > 2) incoming.request[0] = raw[2];
  if (raw.size() > 3) incoming.request[1] = raw[3];
  split_parameters(incoming);

  if (router_request_is(incoming, "ER")) {
    if (incoming.parameters.empty()) {
      incoming.ok = false;
      incoming.err = true;
    } else {
      incoming.nakerr = leading_hex_value(incoming.parameters.front());
      if (incoming.nakerr != 0) {
        incoming.ok = false;
        incoming.err = true;
      }
    }
  }
  received.push_back(std::move(incoming));
}

// Between messages only a lead byte means anything; every other byte is
// noise (line ends, the tail of an over-long message) and is shown once.
void take_idle_byte(char byte) {
  switch (byte) {
    case soh:
      reset_router_message(incoming);
      incoming.ok = true;
      state = receive_state::in_message;
      break;
    case nak_byte:
      reset_router_message(incoming);
      incoming.nak = true;
      state = receive_state::in_message;
      break;
    case ack_byte:
      // An ACK has no body: it is complete the moment it arrives.
      reset_router_message(incoming);
      diag("<DBG>Router: ACK\n");
      incoming.ok = true;
      incoming.ack = true;
      received.push_back(std::move(incoming));
      finish_message();
      break;
    default:
      diag("Discarding unexpected byte %02x\n", static_cast<unsigned char>(byte));
      break;
  }
}

// Inside a message: EOT completes it, NUL poisons it up to the next EOT, and
// the body is capped so one message never holds more than max_body_bytes.
void take_message_byte(char byte) {
  if (byte == eot) {
    if (incoming.nak) {
      complete_nak();
    } else {
      complete_command();
    }
    finish_message();
    state = receive_state::idle;
  } else if (byte == '\0') {
    diag("<WARN>Unexpected NUL in response from router switcher, ignoring response\n");
    state = receive_state::skip_to_eot;
  } else if (incoming.raw.size() < max_body_bytes) {
    incoming.raw += byte;
  } else {
    // The body never grows past max_body_bytes; the rest of this message
    // arrives in idle and is discarded byte by byte.
    diag("<WARN>Over-long rambling response from router switcher\n");
    reset_router_message(incoming);
    state = receive_state::idle;
  }
}

}  // namespace

std::size_t receive_bytes(const char* bytes, std::size_t n) {
  completed = 0;
  for (std::size_t i = 0; i < n; ++i) {
    switch (state) {
      case receive_state::idle:
        take_idle_byte(bytes[i]);
        break;
      case receive_state::in_message:
        take_message_byte(bytes[i]);
        break;
      case receive_state::skip_to_eot:
        if (bytes[i] == eot) {
          reset_router_message(incoming);
          state = receive_state::idle;
        }
        break;
    }
  }
  return completed;
}

router_message receive_take_message() {
  if (received.empty()) return router_message{};
  router_message msg = std::move(received.front());
  received.pop_front();
  return msg;
}

bool received_queue_empty() { return received.empty(); }

void received_queue_drop_front() {
  if (!received.empty()) received.pop_front();
}

bool receive_in_progress() { return !incoming.raw.empty(); }

void receive_reset() {
  reset_router_message(incoming);
  state = receive_state::idle;
}

void receive_reset_for_test() {
  receive_reset();
  received.clear();
}
