#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "router/message.h"
#include "router/protocol.h"

// Splits the bytes a client sends into Native Protocol messages. A frame is
// SOH, a body of protocol, seq, two command letters, TAB-led parameters and
// two checksum digits, then EOT. Bytes outside frames (ACKs, garbage) are
// skipped; a SOH inside a body starts the frame afresh, so one lost EOT costs
// one frame only. Memory is bounded by max_body_bytes whatever arrives.

struct frame_splitter {
  bool in_frame = false;  // a SOH was seen and its EOT not yet
  bool skipping = false;  // the current frame is already bad; wait for its EOT
  std::string body;       // bytes after SOH so far; never above max_body_bytes
};

// One result of the splitter: a good message, or a frame that was dropped.
struct splitter_item {
  bool good = false;
  router_message msg;          // when good: ok set, raw = the body
  const char* reason = "";     // when not good: "nul", "long", "short", "checksum", "header"
};

// Feeds n bytes; appends every frame they complete to out, in order.
void splitter_feed(frame_splitter& s, const char* bytes, std::size_t n,
                   std::vector<splitter_item>& out);

// Decodes one body (the bytes between SOH and EOT). REQUIRES: no NUL in body.
[[nodiscard]] splitter_item splitter_decode(const std::string& body);
