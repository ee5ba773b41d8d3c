#pragma once

#include <map>
#include <string>

// The panel's web server, run from the panel's own loop on its one thread:
// the page, the stream of events to each browser, and the requests that route
// and lock. On an address other than loopback every request must carry the
// token, checked as soon as its headers are in; every request must name this
// panel as its Host; requests that change anything must carry the page's
// secret and, when they name their Origin, this panel's. Bad requests get a
// 4xx and a one-line reason, and nothing reaches the backend. Every resource
// a client can hold is bounded (the limits are in server.cpp).

struct panel_listen {
  std::string host = "127.0.0.1";  // numeric IPv4 address to listen on
  int port = 0;                    // 0: a free one
  std::string token;               // required on every request when not empty
};

// What a change request gets: 200, or a 4xx with its one-line reason.
struct server_answer {
  int status = 200;
  std::string reason;
};

// What the panel does with the requests, installed at the start.
struct server_handlers {
  server_answer (*take)(const std::map<long, long>& salvo, const std::string& client) = nullptr;
  server_answer (*lock)(long output, bool locked) = nullptr;
  server_answer (*dismiss)(long output) = nullptr;
  std::string (*state)(bool debug) = nullptr;  // the "state" event for a new stream
};

// Binds and listens; the port, or -1 with "cannot listen on ADDR:PORT: why"
// on standard error. Only a loopback panel may go without a token, as
// anything else can route: elsewhere one is made up into o.token.
[[nodiscard]] int server_listen(panel_listen& o);

// Starts serving on the socket server_listen opened; false (with a line on
// standard error) when it cannot.
[[nodiscard]] bool server_start(const server_handlers& h);

// The descriptor to wait on for reading, and the longest wait before
// server_step must run again (milliseconds).
[[nodiscard]] int server_fd();
[[nodiscard]] int server_timeout_ms(int longest);

// Serves what is ready, and closes connections past their time limits.
void server_step();

// Events were published: the streams waiting for them go on at the next
// server_step. Not to be called from a handler.
void server_news();

// Ends every stream and stops serving.
void server_stop();
