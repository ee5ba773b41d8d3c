#include "switcher_emulator/pcap.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/diag.h"

namespace {

// File header: magic, version 2.4, time zone 0, accuracy 0, snapshot length,
// link type; records: seconds, microseconds, stored and original length. All
// in host byte order, which readers tell from the magic.
constexpr std::uint32_t pcap_magic = 0xa1b2c3d4;  // timestamps in microseconds
constexpr std::uint32_t link_type_raw = 101;     // a packet starts with its IP header
constexpr std::uint32_t snap_length = 65535;

// IPv4 header without options (20 bytes), then TCP without options (20).
constexpr std::size_t header_bytes = 40;
constexpr std::size_t max_payload = 65535 - header_bytes;  // IPv4 total length is 16 bits
constexpr std::uint8_t tcp_fin = 0x01, tcp_syn = 0x02, tcp_psh = 0x08, tcp_ack = 0x10;
// Made-up initial sequence numbers; analysers show them relative anyway.
constexpr std::uint32_t client_isn = 0x10000000, server_isn = 0x20000000;

// One side of the recorded connection; address and port in network order.
struct endpoint {
  std::uint32_t addr = 0;
  std::uint16_t port = 0;
  std::uint32_t next_seq = 0;  // sequence number of the next byte it sends
};

std::FILE* file = nullptr;
bool recording = false;  // a client connection is being recorded
endpoint client, server;
std::uint16_t ip_id = 0;

void put16(unsigned char* p, std::uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}

void put32(unsigned char* p, std::uint32_t v) {
  put16(p, static_cast<std::uint16_t>(v >> 16));
  put16(p + 2, static_cast<std::uint16_t>(v));
}

// The Internet checksum's running sum: 16-bit big-endian words, a last odd
// byte padded with zero.
std::uint32_t sum_words(const unsigned char* p, std::size_t n, std::uint32_t sum) {
  for (std::size_t i = 0; i + 1 < n; i += 2) sum += static_cast<std::uint32_t>(p[i] << 8 | p[i + 1]);
  if (n % 2 != 0) sum += static_cast<std::uint32_t>(p[n - 1] << 8);
  return sum;
}

std::uint16_t fold(std::uint32_t sum) {
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

// Stops recording after a failed write; the emulator itself goes on.
void give_up(const char* what) {
  diag("switcher_emulator: pcap %s: %s\n", what, std::strerror(errno));
  std::fclose(file);
  file = nullptr;
  recording = false;
}

// Writes one packet from one side to the other carrying n payload bytes,
// then advances the sender's sequence number past them (and past SYN or FIN).
void write_packet(endpoint& from, const endpoint& to, std::uint8_t flags, const char* payload,
                  std::size_t n) {
  static unsigned char pkt[header_bytes + max_payload];
  const std::size_t total = header_bytes + n;
  std::memset(pkt, 0, header_bytes);
  pkt[0] = 0x45;  // version 4, five header words
  put16(pkt + 2, static_cast<std::uint16_t>(total));
  put16(pkt + 4, ip_id++);
  put16(pkt + 6, 0x4000);  // don't fragment
  pkt[8] = 64;             // TTL
  pkt[9] = IPPROTO_TCP;
  std::memcpy(pkt + 12, &from.addr, 4);
  std::memcpy(pkt + 16, &to.addr, 4);
  put16(pkt + 10, fold(sum_words(pkt, 20, 0)));
  unsigned char* tcp = pkt + 20;
  std::memcpy(tcp, &from.port, 2);
  std::memcpy(tcp + 2, &to.port, 2);
  put32(tcp + 4, from.next_seq);
  if (flags & tcp_ack) put32(tcp + 8, to.next_seq);
  tcp[12] = 0x50;  // five header words
  tcp[13] = flags;
  put16(tcp + 14, 65535);  // window
  if (n > 0) std::memcpy(tcp + 20, payload, n);
  // The TCP checksum covers a pseudo header of both addresses, protocol and length.
  std::uint32_t sum = sum_words(pkt + 12, 8, IPPROTO_TCP + static_cast<std::uint32_t>(20 + n));
  put16(tcp + 16, fold(sum_words(tcp, 20 + n, sum)));

  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::uint32_t record[4] = {static_cast<std::uint32_t>(now.tv_sec),
                                   static_cast<std::uint32_t>(now.tv_nsec / 1000),
                                   static_cast<std::uint32_t>(total),
                                   static_cast<std::uint32_t>(total)};
  // Flushed at once, so the file is complete whenever the emulator stops.
  if (std::fwrite(record, sizeof record, 1, file) != 1 || std::fwrite(pkt, total, 1, file) != 1 ||
      std::fflush(file) != 0) {
    give_up("write");
    return;
  }
  from.next_seq += static_cast<std::uint32_t>(n) + ((flags & (tcp_syn | tcp_fin)) ? 1 : 0);
}

void write_data(endpoint& from, const endpoint& to, const char* bytes, std::size_t n) {
  for (std::size_t done = 0; recording && done < n;) {
    const std::size_t len = n - done < max_payload ? n - done : max_payload;
    write_packet(from, to, tcp_psh | tcp_ack, bytes + done, len);
    done += len;
  }
}

}  // namespace

bool pcap_open(const char* path) {
  file = std::fopen(path, "wb");
  if (file == nullptr) {
    diag("switcher_emulator: cannot write %s: %s\n", path, std::strerror(errno));
    return false;
  }
  struct {
    std::uint32_t magic = pcap_magic;
    std::uint16_t major = 2, minor = 4;
    std::uint32_t zone = 0, accuracy = 0, snap = snap_length, link = link_type_raw;
  } header;
  static_assert(sizeof header == 24);
  if (std::fwrite(&header, sizeof header, 1, file) != 1 || std::fflush(file) != 0) {
    give_up("write");
    return false;
  }
  return true;
}

void pcap_connected(int fd) {
  if (file == nullptr) return;
  sockaddr_in peer{};
  sockaddr_in local{};
  socklen_t peer_len = sizeof peer;
  socklen_t local_len = sizeof local;
  recording = getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len) == 0 &&
              getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) == 0 &&
              peer.sin_family == AF_INET && local.sin_family == AF_INET;
  if (!recording) return;
  client = {peer.sin_addr.s_addr, peer.sin_port, client_isn};
  server = {local.sin_addr.s_addr, local.sin_port, server_isn};
  write_packet(client, server, tcp_syn, nullptr, 0);
  if (recording) write_packet(server, client, tcp_syn | tcp_ack, nullptr, 0);
  if (recording) write_packet(client, server, tcp_ack, nullptr, 0);
}

void pcap_received(const char* bytes, std::size_t n) { write_data(client, server, bytes, n); }

void pcap_sent(const char* bytes, std::size_t n) { write_data(server, client, bytes, n); }

void pcap_closed() {
  if (!recording) return;
  write_packet(client, server, tcp_fin | tcp_ack, nullptr, 0);
  if (recording) write_packet(server, client, tcp_fin | tcp_ack, nullptr, 0);
  if (recording) write_packet(client, server, tcp_ack, nullptr, 0);
  recording = false;
}

void pcap_close() {
  if (file != nullptr) std::fclose(file);
  file = nullptr;
  recording = false;
}
