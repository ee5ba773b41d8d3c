#include "panel/server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <random>

#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "panel/events.h"
#include "panel/page.h"

namespace {

using json = nlohmann::json;

// The limits, each with what happens at it.
// Connections in all, and from one client address: past them a connection is
// closed as it comes. A control room's browsers fit many times over.
constexpr unsigned max_connections = 256;
constexpr unsigned max_connections_per_address = 32;
// Event streams from one client address (a browser tab holds one): past it,
// 503 at once.
constexpr std::size_t max_streams_per_address = 8;
// The request line and headers of one request, in a connection's memory:
// past it, 431 at once (libmicrohttpd's own answer).
constexpr std::size_t connection_memory_bytes = std::size_t{32} * 1024;
// The body of one request: past it, 413 (at once when its length is given
// first; a chunked body is dropped past it and answered when it ends).
constexpr std::size_t max_body_bytes = std::size_t{64} * 1024;
// A whole request, from the connection's start or the end of its previous
// request, must arrive within this; a client that sends slower, or holds an
// idle connection longer, is closed. Event streams are exempt once begun.
constexpr us_time_t request_time_us = 10'000'000;
// A take whose body took longer than this after its headers is refused, never
// run late: the operator has given up on it by then.
constexpr us_time_t take_time_us = 2'000'000;
// A comment on a quiet stream this often, so a browser that is gone shows.
constexpr us_time_t keepalive_us = 15'000'000;
// A stream's reads from the event log, each at most about this much.
constexpr std::size_t stream_chunk_bytes = std::size_t{64} * 1024;

// One TCP connection, from libmicrohttpd's notices.
struct connection_record {
  int fd = -1;
  us_time_t since = 0;  // when it opened, or its last request ended
  bool stream = false;  // serves an event stream: no time limit
};

// One request while it arrives.
struct request_record {
  us_time_t headers_at = 0;
  std::string body;
  bool too_large = false;
};

struct stream_record {
  MHD_Connection* connection = nullptr;
  std::string address;
  bool debug = false;
  bool suspended = false;
  std::uint64_t next = 0;  // the next event to send
  std::string out;         // framed, not yet taken by the connection
  us_time_t last_write = 0;
};

MHD_Daemon* daemon_handle = nullptr;
int listen_fd = -1;
server_handlers handlers;
std::string secret;  // the page carries it; changes must bring it back
std::string token;
bool loopback = true;
std::vector<std::string> hosts;  // what Host may say: this panel and no other name
std::string listen_port;
std::list<connection_record> connections;
std::list<stream_record> streams;
bool stopping = false;  // streams end rather than wait

std::string random_hex(int bytes) {
  std::random_device rd;
  std::string hex;
  char two[3];
  for (int i = 0; i < bytes; ++i) {
    std::snprintf(two, sizeof two, "%02x", static_cast<unsigned>(rd() & 0xFF));
    hex += two;
  }
  return hex;
}

std::string header(MHD_Connection* c, const char* name) {
  const char* v = MHD_lookup_connection_value(c, MHD_HEADER_KIND, name);
  return v == nullptr ? "" : v;
}

std::string argument(MHD_Connection* c, const char* name) {
  const char* v = MHD_lookup_connection_value(c, MHD_GET_ARGUMENT_KIND, name);
  return v == nullptr ? "" : v;
}

std::string client_address(MHD_Connection* c) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr ||
      info->client_addr->sa_family != AF_INET) {
    return "";
  }
  char text[INET_ADDRSTRLEN] = "";
  const auto* in = reinterpret_cast<const sockaddr_in*>(info->client_addr);
  inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
  return text;
}

connection_record* record_of(MHD_Connection* c) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info == nullptr ? nullptr : static_cast<connection_record*>(info->socket_context);
}

MHD_Result send(MHD_Connection* c, unsigned status, const std::string& body, const char* type) {
  MHD_Response* r = MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                    MHD_RESPMEM_MUST_COPY);
  if (r == nullptr) return MHD_NO;
  MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type);
  MHD_add_response_header(r, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  const MHD_Result queued = MHD_queue_response(c, status, r);
  MHD_destroy_response(r);
  return queued;
}

MHD_Result refuse(MHD_Connection* c, unsigned status, const std::string& reason) {
  return send(c, status, reason + "\n", "text/plain; charset=utf-8");
}

bool allowed_host(const std::string& host) {
  return std::find(hosts.begin(), hosts.end(), host) != hosts.end();
}

// Why an Origin header may not change anything here; "" when it may. The
// origin is "http://" and a host, with ":port" unless the port is 80.
std::string origin_refusal(const std::string& origin) {
  const std::string scheme = "http://";
  if (origin.compare(0, scheme.size(), scheme) != 0) {
    return "Origin \"" + origin + "\" is not an http:// origin of this panel";
  }
  std::string host = origin.substr(scheme.size());
  if (host.find_first_of("/?#@") != std::string::npos || host.empty()) {
    return "Origin \"" + origin + "\" is not an origin (scheme://host:port)";
  }
  if (host.find(':') == std::string::npos) host += ":80";
  if (!allowed_host(host)) return "Origin \"" + origin + "\" may not use this panel";
  return "";
}

// The checks made as soon as the request line and headers are in; the
// status and reason of a refusal, or 0.
server_answer check_headers(MHD_Connection* c, const std::string& method, const std::string& url) {
  if (!token.empty() && argument(c, "token") != token && header(c, "X-Panel-Token") != token) {
    return {401, "this panel wants its token (?token=...)"};
  }
  // A page of another site, or a name rebound to this address, says so here.
  const std::string host = header(c, MHD_HTTP_HEADER_HOST);
  if (!allowed_host(host)) return {403, "Host \"" + host + "\" is not this panel"};
  const bool page = url == "/" || url == "/events";
  const bool change = url == "/take" || url == "/lock" || url == "/dismiss";
  if (!page && !change) return {404, "no such page: the panel is at /"};
  if ((page && method != "GET") || (change && method != "POST")) {
    return {405, method + " is not for " + url + ": use " + (page ? "GET" : "POST")};
  }
  if (!change) return {0, ""};
  const char* origin = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Origin");
  if (origin != nullptr) {
    std::string why = origin_refusal(origin);
    if (!why.empty()) return {403, why};
  }
  if (header(c, "X-Panel-Secret") != secret) {
    return {403, "a change needs the page's secret: reload the panel"};
  }
  const char* length = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Content-Length");
  if (length != nullptr && std::strtoull(length, nullptr, 10) > max_body_bytes) {
    return {413, "the body is over 64 KiB"};
  }
  return {0, ""};
}

// A position from a JSON body: a whole number, or -1.
long position(const json& body, const char* name) {
  const auto it = body.find(name);
  if (it == body.end() || !it->is_number_integer()) return -1;
  const auto v = it->get<std::int64_t>();
  return v >= 0 && v < 1'000'000'000 ? static_cast<long>(v) : -1;
}

server_answer take(const json& body) {
  const auto takes = body.find("takes");
  if (takes == body.end() || !takes->is_array()) {
    return {400, "the body must be {\"takes\": [{\"output\": N, \"input\": N}, ...]}"};
  }
  std::map<long, long> salvo;
  for (const json& t : *takes) {
    if (!t.is_object()) return {400, "each take must be {\"output\": N, \"input\": N}"};
    salvo[position(t, "output")] = position(t, "input");
  }
  const auto client = body.find("client");
  return handlers.take(salvo, client != body.end() && client->is_string() ? client->get<std::string>() : "");
}

server_answer change(const std::string& url, const std::string& text) {
  const json body = json::parse(text, nullptr, false);
  if (body.is_discarded() || !body.is_object()) return {400, "the body must be a JSON object"};
  if (url == "/take") return take(body);
  if (url == "/dismiss") return handlers.dismiss(position(body, "output"));
  const auto locked = body.find("locked");
  if (locked == body.end() || !locked->is_boolean()) {
    return {400, "the body must be {\"output\": N, \"locked\": true or false}"};
  }
  return handlers.lock(position(body, "output"), locked->get<bool>());
}

MHD_Result page(MHD_Connection* c) {
  std::string html = panel_page_html;
  for (const auto& [mark, value] : {std::pair<std::string, std::string>{"@SECRET@", secret},
                                     std::pair<std::string, std::string>{"@TOKEN@", token}}) {
    for (std::size_t at; (at = html.find(mark)) != std::string::npos;) {
      html.replace(at, mark.size(), value);
    }
  }
  return send(c, 200, html, "text/html; charset=utf-8");
}

// The whole state, as a stream starts or falls too far behind.
void restart_stream(stream_record& s) {
  s.next = events_next();
  s.out = events_frame(json{{"t", "hello"}, {"secret", secret}}.dump());
  s.out += events_frame(handlers.state(s.debug));
}

// Server-Sent Events: hello and the state, then every event as it comes. A
// stream with nothing to send is suspended until there is news.
ssize_t stream_read(void* cls, std::uint64_t, char* buf, std::size_t max) {
  auto* s = static_cast<stream_record*>(cls);
  if (stopping) return MHD_CONTENT_READER_END_OF_STREAM;
  if (s->out.empty() && !events_since(s->next, s->debug, stream_chunk_bytes, s->out)) {
    restart_stream(*s);
  }
  if (s->out.empty()) {
    MHD_suspend_connection(s->connection);
    s->suspended = true;
    return 0;
  }
  const std::size_t n = std::min(max, s->out.size());
  (void)s->out.copy(buf, n);
  s->out.erase(0, n);
  s->last_write = monotonic_now_us();
  return static_cast<ssize_t>(n);
}

void stream_gone(void* cls) {
  auto* s = static_cast<stream_record*>(cls);
  streams.remove_if([s](const stream_record& r) { return &r == s; });
}

MHD_Result start_stream(MHD_Connection* c) {
  const std::string address = client_address(c);
  const auto same = std::count_if(streams.begin(), streams.end(),
                                  [&](const stream_record& s) { return s.address == address; });
  if (static_cast<std::size_t>(same) >= max_streams_per_address) {
    return refuse(c, 503, "too many event streams from " + address + " (at most " +
                              std::to_string(max_streams_per_address) + ")");
  }
  stream_record& s = streams.emplace_back();
  s.connection = c;
  s.address = address;
  s.debug = argument(c, "debug") == "1";
  s.last_write = monotonic_now_us();
  restart_stream(s);
  MHD_Response* r = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, stream_chunk_bytes,
                                                      stream_read, &s, stream_gone);
  if (r == nullptr) {
    streams.pop_back();
    return MHD_NO;
  }
  MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "text/event-stream");
  MHD_add_response_header(r, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  if (connection_record* rec = record_of(c)) rec->stream = true;
  const MHD_Result queued = MHD_queue_response(c, 200, r);
  MHD_destroy_response(r);
  return queued;
}

MHD_Result on_request(void*, MHD_Connection* c, const char* url_text, const char* method_text,
                      const char*, const char* upload, std::size_t* upload_size, void** context) {
  const std::string url = url_text, method = method_text;
  auto* req = static_cast<request_record*>(*context);
  if (req == nullptr) {
    const server_answer refused = check_headers(c, method, url);
    if (refused.status != 0) return refuse(c, static_cast<unsigned>(refused.status), refused.reason);
    if (url == "/") return page(c);
    if (url == "/events") return start_stream(c);
    req = new request_record;
    req->headers_at = monotonic_now_us();
    *context = req;
    return MHD_YES;
  }
  if (*upload_size != 0) {
    // A chunked body names no length before it, and the library takes no
    // answer while a body arrives: past the limit the rest is read and
    // dropped, and the 413 goes when it ends (or the request's time does).
    if (req->body.size() + *upload_size > max_body_bytes) req->too_large = true;
    if (!req->too_large) req->body.append(upload, *upload_size);
    *upload_size = 0;
    return MHD_YES;
  }
  if (req->too_large) return refuse(c, 413, "the body is over 64 KiB");
  if (monotonic_now_us() > req->headers_at + take_time_us) {
    return refuse(c, 408, "the request took over 2 s to arrive: nothing done");
  }
  const server_answer a = change(url, req->body);
  if (a.status == 200) return send(c, 200, "{\"ok\":true}\n", "application/json");
  return refuse(c, static_cast<unsigned>(a.status), a.reason);
}

void on_completed(void*, MHD_Connection* c, void** context, MHD_RequestTerminationCode) {
  delete static_cast<request_record*>(*context);
  *context = nullptr;
  if (connection_record* rec = record_of(c)) rec->since = monotonic_now_us();
}

void on_connection(void*, MHD_Connection* c, void** socket_context,
                   MHD_ConnectionNotificationCode code) {
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    connection_record& rec = connections.emplace_back();
    const MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
    rec.fd = info == nullptr ? -1 : info->connect_fd;
    rec.since = monotonic_now_us();
    *socket_context = &rec;
  } else {
    auto* rec = static_cast<connection_record*>(*socket_context);
    connections.remove_if([rec](const connection_record& r) { return &r == rec; });
  }
}

// A connection past its time gets its socket shut down: libmicrohttpd then
// reads its end and closes it as any other.
void close_slow_connections(us_time_t now) {
  for (connection_record& rec : connections) {
    if (!rec.stream && rec.fd >= 0 && now > rec.since + request_time_us) {
      shutdown(rec.fd, SHUT_RDWR);
      rec.fd = -1;
    }
  }
}

void resume_quiet_streams(us_time_t now) {
  for (stream_record& s : streams) {
    if (s.suspended && now > s.last_write + keepalive_us) {
      s.out += ": quiet\n\n";
      s.suspended = false;
      MHD_resume_connection(s.connection);
    }
  }
}

std::string listen_error(int error) {
  return error == EADDRINUSE ? "address in use" : std::strerror(error);
}

}  // namespace

int server_listen(panel_listen& o) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(o.port));
  const std::string where = o.host + ":" + std::to_string(o.port);
  if (inet_aton(o.host.c_str(), &addr.sin_addr) == 0) {
    std::fprintf(stderr, "zeph_route_panel: cannot listen on %s: not a numeric IPv4 address\n",
                 where.c_str());
    return -1;
  }
  listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // SO_REUSEADDR lets a panel start again at once on its port; a second
  // listener on a port in use still fails (no SO_REUSEPORT).
  const int on = 1;
  socklen_t len = sizeof addr;
  if (listen_fd < 0 || setsockopt(listen_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listen_fd, 64) != 0 ||
      getsockname(listen_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    std::fprintf(stderr, "zeph_route_panel: cannot listen on %s: %s\n", where.c_str(),
                 listen_error(errno).c_str());
    if (listen_fd >= 0) close(listen_fd);
    listen_fd = -1;
    return -1;
  }
  loopback = o.host.rfind("127.", 0) == 0;
  if (!loopback && o.token.empty()) o.token = random_hex(12);
  token = o.token;
  secret = random_hex(16);
  listen_port = std::to_string(ntohs(addr.sin_port));
  hosts = {o.host + ":" + listen_port};
  if (loopback) hosts.push_back("localhost:" + listen_port);
  return ntohs(addr.sin_port);
}

bool server_start(const server_handlers& h) {
  handlers = h;
  daemon_handle = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, on_request, nullptr,
      MHD_OPTION_LISTEN_SOCKET, listen_fd,
      MHD_OPTION_CONNECTION_LIMIT, max_connections,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, max_connections_per_address,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory_bytes,
      MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(request_time_us / 1'000'000),
      MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr,
      MHD_OPTION_NOTIFY_CONNECTION, on_connection, nullptr,
      MHD_OPTION_END);
  if (daemon_handle == nullptr) {
    std::fprintf(stderr, "zeph_route_panel: cannot start the web server\n");
    return false;
  }
  return true;
}

int server_fd() {
  const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_handle, MHD_DAEMON_INFO_EPOLL_FD);
  return info == nullptr ? -1 : info->epoll_fd;
}

int server_timeout_ms(int longest) {
  MHD_UNSIGNED_LONG_LONG ms = 0;
  if (MHD_get_timeout(daemon_handle, &ms) == MHD_YES && ms < static_cast<unsigned>(longest)) {
    return static_cast<int>(ms);
  }
  return longest;
}

void server_step() {
  const us_time_t now = monotonic_now_us();
  close_slow_connections(now);
  resume_quiet_streams(now);
  (void)MHD_run(daemon_handle);
}

void server_news() {
  for (stream_record& s : streams) {
    if (s.suspended) {
      s.suspended = false;
      MHD_resume_connection(s.connection);
    }
  }
}

void server_stop() {
  if (daemon_handle == nullptr) return;
  // Suspended connections must be resumed before the daemon stops.
  stopping = true;
  server_news();
  MHD_stop_daemon(daemon_handle);
  daemon_handle = nullptr;
}
