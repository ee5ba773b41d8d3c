#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "router/protocol.h"

// A frame as built for sending: NUL-terminated text.
using router_frame = std::array<char, max_frame_bytes>;

// One Native Protocol message, sent or received.
struct router_message {
  char protocol = '\0';    // 'N' for everything the backend sends
  char seq = '0';          // '0' or NUL: the last message of a reply
  char request[3] = {};    // two command letters and a NUL
  std::vector<std::string> parameters;
  bool ok = false;         // a good message
  bool ack = false;        // a bare ACK byte
  bool nak = false;        // a NAK frame
  bool err = false;        // an "ER" reply reporting an error
  std::int32_t nakerr = -1;  // error code of a NAK or "ER"; -1 when none
  std::string raw;         // received body between lead byte and EOT
};

// Puts msg into the cleared state (the state of a default-constructed record);
// the parameters vector keeps its storage.
void reset_router_message(router_message& msg);

// A command message ready to send: protocol 'N', seq '0', the two letters of
// request and the parameters.
[[nodiscard]] router_message make_router_request(const char* request,
                                                 std::vector<std::string> parameters = {});

// True when msg's command letters are exactly the two letters of request.
[[nodiscard]] bool router_request_is(const router_message& msg, const char* request);

// The checksum of the covered bytes: the two's complement of their sum,
// modulo 256.
[[nodiscard]] unsigned char router_checksum(const char* bytes, std::size_t n);

// Builds the frame for msg as NUL-terminated text in frame: the ACK byte if
// ack is set, else a NAK frame if nak is set, else a command frame. Returns
// false, leaving an empty frame text, when the parameters do not fit the
// frame buffer.
[[nodiscard]] bool encode_router_frame(const router_message& msg, router_frame& frame);

// The one-line description used in diagnostic lines, for example
// "[OK] request=ER protocol=N seq=0 nakerr=0000 param=00,QD".
[[nodiscard]] std::string describe_router_message(const router_message& msg);

// Writes "<DBG>Router message(raw): '<raw>' <description>" to standard error.
void log_router_message(const router_message& msg);
