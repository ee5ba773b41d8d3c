#include "switcher_emulator/splitter.h"

#include <cassert>

namespace {

splitter_item bad(const char* reason) {
  splitter_item item;
  item.reason = reason;
  return item;
}

}  // namespace

splitter_item splitter_decode(const std::string& body) {
  // Protocol, seq, two letters and two checksum digits at the least.
  if (body.size() < 4 + checksum_field_bytes) return bad("short");
  const std::size_t covered = body.size() - checksum_field_bytes;
  const int hi = hex_value(body[covered]);
  const int lo = hex_value(body[covered + 1]);
  if (hi < 0 || lo < 0 ||
      router_checksum(body.data(), covered) != static_cast<unsigned char>(hi * 16 + lo)) {
    return bad("checksum");
  }
  // After the four header bytes comes nothing, or a TAB and the parameters.
  if (covered > 4 && body[4] != tab) return bad("header");
  splitter_item item;
  item.good = true;
  router_message& m = item.msg;
  m.protocol = body[0];
  m.seq = body[1];
  m.request[0] = body[2];
  m.request[1] = body[3];
  m.ok = true;
  m.raw = body;
  // Every TAB with a byte after it opens a parameter, so a trailing TAB opens none.
  std::size_t start = 5;  // first byte of the current parameter
  while (start < covered) {
    std::size_t end = body.find(tab, start);
    if (end == std::string::npos || end > covered) end = covered;
    m.parameters.push_back(body.substr(start, end - start));
    start = end + 1;
  }
  return item;
}

void splitter_feed(frame_splitter& s, const char* bytes, std::size_t n,
                   std::vector<splitter_item>& out) {
  for (std::size_t i = 0; i < n; ++i) {
    const char c = bytes[i];
    if (c == soh) {
      // A new frame, even in the middle of another: resynchronise on it.
      s.in_frame = true;
      s.skipping = false;
      s.body.clear();
      continue;
    }
    if (!s.in_frame) continue;  // ACKs and anything else between frames
    if (c == eot) {
      if (!s.skipping) out.push_back(splitter_decode(s.body));
      s.in_frame = false;
      s.skipping = false;
      s.body.clear();
      continue;
    }
    if (s.skipping) continue;
    if (c == '\0' || s.body.size() == max_body_bytes) {
      out.push_back(bad(c == '\0' ? "nul" : "long"));
      s.skipping = true;
      s.body.clear();
      continue;
    }
    s.body.push_back(c);
  }
  assert(s.body.size() <= max_body_bytes);
}
