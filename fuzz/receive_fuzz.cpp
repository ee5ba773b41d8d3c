// Arbitrary switcher bytes through the receive parser.
//
// Input layout: the first byte steers the chunking, the rest is the byte
// stream as the socket would deliver it. The stream is fed in chunks of 1 to
// (first byte + 1) bytes, their sizes drawn from a generator seeded by that
// byte (0: byte by byte), then fed again as one piece from a reset parser.
//
// Checked:
// - both feeds queue the same messages and leave the same partial message;
// - no queued message holds more than 4096 bytes of body, none holds a NUL
//   or EOT, and its flags agree with what it was (ACK, NAK, command, "ER");
// - a queued command has a checksum field that matches its covered bytes;
// - a queued command re-encoded as a frame decodes to the same command, where
//   a frame can carry it (two command letters, no empty last parameter, and
//   small enough for the frame buffer).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "router/message.h"
#include "router/protocol.h"
#include "router/receive.h"

namespace {

std::vector<router_message> drain_queue() {
  std::vector<router_message> out;
  while (!received_queue_empty()) out.push_back(receive_take_message());
  return out;
}

bool same_command(const router_message& a, const router_message& b) {
  return a.protocol == b.protocol && a.seq == b.seq && a.request[0] == b.request[0] &&
         a.request[1] == b.request[1] && a.request[2] == b.request[2] &&
         a.parameters == b.parameters && a.ok == b.ok && a.ack == b.ack && a.nak == b.nak &&
         a.err == b.err && a.nakerr == b.nakerr;
}

bool same_message(const router_message& a, const router_message& b) {
  return same_command(a, b) && a.raw == b.raw;
}

int hex_or_zero(char c) { return hex_value(c) < 0 ? 0 : hex_value(c); }

void check_message(const router_message& m) {
  FUZZ_CHECK(m.raw.size() <= max_body_bytes);
  FUZZ_CHECK(m.raw.find('\0') == std::string::npos);
  FUZZ_CHECK(m.raw.find(eot) == std::string::npos);
  if (m.ack) {
    FUZZ_CHECK(m.ok && !m.nak && !m.err && m.nakerr == -1 && m.raw.empty());
    FUZZ_CHECK(m.parameters.empty());
    return;
  }
  if (m.nak) {
    FUZZ_CHECK(!m.ok && !m.err && m.parameters.empty());
    return;
  }
  // A command: at least its checksum field, which must match.
  FUZZ_CHECK(m.raw.size() >= checksum_field_bytes);
  const std::size_t covered = m.raw.size() - checksum_field_bytes;
  const int field = hex_or_zero(m.raw[covered]) * 16 + hex_or_zero(m.raw[covered + 1]);
  FUZZ_CHECK(router_checksum(m.raw.data(), covered) == field);
  FUZZ_CHECK(m.protocol == m.raw[0] && m.seq == m.raw[1]);
  FUZZ_CHECK(m.ok != m.err);
  if (!router_request_is(m, "ER")) FUZZ_CHECK(m.ok && m.nakerr == -1);
  if (m.err) FUZZ_CHECK(m.parameters.empty() ? m.nakerr == -1 : m.nakerr != 0);
  std::size_t tabs = 0;
  for (char c : m.raw) tabs += c == tab;
  FUZZ_CHECK(m.parameters.size() <= tabs);
  for (const std::string& p : m.parameters) FUZZ_CHECK(p.find(tab) == std::string::npos);
}

// Encodes a received command and decodes the frame again from a reset parser.
void check_reencoding(const router_message& m) {
  if (m.ack || m.nak || m.request[0] == '\0' || m.request[1] == '\0') return;
  // A TAB just before the checksum opens no parameter, so a trailing empty
  // parameter cannot be sent back.
  if (!m.parameters.empty() && m.parameters.back().empty()) return;
  router_frame frame;
  if (!encode_router_frame(m, frame)) return;
  receive_reset_for_test();
  receive_bytes(frame.data(), std::strlen(frame.data()));
  const std::vector<router_message> again = drain_queue();
  FUZZ_CHECK(again.size() == 1);
  FUZZ_CHECK(same_command(m, again[0]));
}

// Chunk sizes from a xorshift generator seeded by the steering byte.
std::vector<router_message> feed_in_chunks(unsigned steer, const char* bytes, std::size_t n,
                                           bool* partial) {
  receive_reset_for_test();
  std::uint32_t x = steer * 2654435761u + 1;
  for (std::size_t at = 0; at < n;) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    std::size_t len = 1 + x % (steer + 1);
    if (len > n - at) len = n - at;
    receive_bytes(bytes + at, len);
    at += len;
  }
  *partial = receive_in_progress();
  return drain_queue();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::silence_diagnostics(argc, argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const char* bytes = reinterpret_cast<const char*>(data) + 1;
  const std::size_t n = size - 1;

  bool chunked_partial = false;
  const std::vector<router_message> chunked = feed_in_chunks(data[0], bytes, n, &chunked_partial);

  receive_reset_for_test();
  receive_bytes(bytes, n);
  const bool whole_partial = receive_in_progress();
  const std::vector<router_message> whole = drain_queue();

  FUZZ_CHECK(chunked.size() == whole.size());
  FUZZ_CHECK(chunked_partial == whole_partial);
  for (std::size_t i = 0; i < whole.size(); ++i) {
    FUZZ_CHECK(same_message(chunked[i], whole[i]));
    check_message(whole[i]);
  }
  for (const router_message& m : whole) check_reencoding(m);
  receive_reset_for_test();
  return 0;
}
