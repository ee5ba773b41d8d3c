#pragma once

#include <cstddef>

// A record of the emulator's client connections as a pcap file that a packet
// analyser opens as if it had been taken on the wire. Every read from and
// every write to the client becomes one IPv4/TCP packet with the real
// addresses, ports and time; sequence and acknowledgement numbers are made up
// but follow the bytes, so the analyser reassembles the stream. A connection
// starts with a three-way handshake and ends with a FIN from each side (the
// client's first: which side closed is not recorded). One capture per
// process; every call but pcap_open does nothing while none is open.

// Creates path and writes the file header. False, with a line on stderr,
// when the file cannot be written.
[[nodiscard]] bool pcap_open(const char* path);

// A client was accepted on fd: records its addresses and the handshake.
// Nothing is recorded for this connection when fd is not an IPv4 socket.
void pcap_connected(int fd);

// n bytes read from the client, or written to it. Each call is one packet,
// or several when n exceeds what one IPv4 packet carries.
void pcap_received(const char* bytes, std::size_t n);
void pcap_sent(const char* bytes, std::size_t n);

// The client connection closed: a FIN each way and the last ACK.
void pcap_closed();

// Closes the capture; everything recorded is already on disk.
void pcap_close();
