#include "router/message.h"

#include <cassert>
#include <cstdio>
#include <cstring>

#include "base/diag.h"

void reset_router_message(router_message& msg) {
  msg.protocol = '\0';
  msg.seq = '0';
  // Both letters are cleared, so a short received body can never leave a
  // letter of an earlier message behind.
  msg.request[0] = msg.request[1] = msg.request[2] = '\0';
  msg.parameters.clear();
  msg.ok = msg.ack = msg.nak = msg.err = false;
  msg.nakerr = -1;
  msg.raw.clear();
}

router_message make_router_request(const char* request, std::vector<std::string> parameters) {
  router_message msg;
  msg.protocol = 'N';
  msg.seq = '0';
  std::strncpy(msg.request, request, 2);
  msg.parameters = std::move(parameters);
  return msg;
}

bool router_request_is(const router_message& msg, const char* request) {
  // A request text longer than two letters can never match a command.
  return std::strncmp(msg.request, request, 2) == 0 && std::strlen(request) <= 2;
}

unsigned char router_checksum(const char* bytes, std::size_t n) {
  // Added to the covered bytes, the result makes their sum a multiple of 256.
  unsigned sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += static_cast<unsigned char>(bytes[i]);
  return static_cast<unsigned char>((256 - (sum % 256)) % 256);
}

bool encode_router_frame(const router_message& msg, router_frame& frame) {
  char* const b = frame.data();
  // The buffer's last byte: the terminating NUL must land at or before it.
  char* const f = b + frame.size() - 1;
  if (msg.ack) {
    // A bare acknowledgement: nothing else of the record is sent.
    b[0] = ack_byte;
    b[1] = '\0';
    return true;
  }
  if (msg.nak) {
    // NAK, the low 16 bits of the code as four upper-case digits, EOT.
    std::snprintf(b, frame.size(), "%c%04X%c", nak_byte,
                  static_cast<unsigned>(msg.nakerr) & 0xFFFFu, eot);
    return true;
  }
  // Header is SOH, protocol, sequence flag and two command letters; each
  // parameter follows a TAB; then two checksum digits over everything after
  // SOH, and EOT.
  char* w = b;
  *w++ = soh;
  *w++ = msg.protocol;
  *w++ = msg.seq;
  *w++ = msg.request[0];
  *w++ = msg.request[1];
  for (const std::string& p : msg.parameters) {
    const std::size_t through_param = static_cast<std::size_t>(w - b) + 1 + p.size();
    // An empty parameter adds only its TAB. One such TAB past the limit still
    // fits (the limit leaves room for it); a run of them must not overrun.
    const std::size_t limit = max_frame_before_checksum + (p.empty() ? 1 : 0);
    if (through_param > limit) {
      b[0] = '\0';  // a failed encoding leaves no frame text behind
      return false;
    }
    *w++ = tab;
    std::memcpy(w, p.data(), p.size());
    w += p.size();
  }
  const unsigned char sum = router_checksum(b + 1, static_cast<std::size_t>(w - b - 1));
  *w++ = hex_digit(sum >> 4);
  *w++ = hex_digit(sum);
  *w++ = eot;
  assert(w <= f);
  *w = '\0';
  return true;
}

std::string describe_router_message(const router_message& msg) {
  std::string d;
  if (msg.ok) d += "[OK] ";
  if (msg.ack) d += "[ACK] ";
  if (msg.nak) d += "[NAK] ";
  if (msg.err) d += "[ERR] ";
  d += "request=";
  d += std::string(msg.request, strnlen(msg.request, 2));
  d += " protocol=";
  d += msg.protocol;
  d += " seq=";
  d += msg.seq;
  d += ' ';
  if (msg.nakerr >= 0) {
    char code[32];
    std::snprintf(code, sizeof code, "nakerr=%04x ", static_cast<unsigned>(msg.nakerr));
    d += code;
  }
  if (!msg.parameters.empty()) {
    d += "param=";
    for (std::size_t i = 0; i < msg.parameters.size(); ++i) {
      if (i > 0) d += ',';
      d += msg.parameters[i];
    }
  }
  return d;
}

void log_router_message(const router_message& msg) {
  diag("<DBG>Router message(raw): '%s' %s\n", msg.raw.c_str(),
       describe_router_message(msg).c_str());
}
