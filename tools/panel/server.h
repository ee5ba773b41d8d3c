#pragma once

#include <string>

// The panel's web server, on threads of its own: the page, the stream of
// events to each browser, and the requests that route and lock. Every request
// must name this panel as its Host, and carry the token when there is one;
// requests that change anything must carry the page's secret and, when they
// name their Origin, this panel's. Bad requests get a 4xx and a one-line
// reason, and nothing reaches the backend.

struct server_options {
  std::string host = "127.0.0.1";  // numeric IPv4 address to listen on
  int port = 0;                    // 0: a free one
  std::string token;               // required on every request when not empty
};

// Binds and starts serving; returns the port, or -1 (with a line on standard
// error) when it cannot listen. Only a loopback panel may go without a token,
// as anything else can route: elsewhere one is made up into o.token.
[[nodiscard]] int server_start(server_options& o);

// Stops serving and waits for the server's threads.
void server_stop();
