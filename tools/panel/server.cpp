#include "panel/server.h"

#include <arpa/inet.h>

#include <cstdio>
#include <memory>
#include <random>
#include <thread>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "panel/hub.h"
#include "panel/page.h"

namespace {

using json = nlohmann::json;

constexpr std::size_t max_body_bytes = std::size_t{64} * 1024;
constexpr int keepalive_ms = 15000;  // a comment on a quiet stream, so a gone browser shows
constexpr std::size_t worker_threads = 64;  // each open stream holds one

std::unique_ptr<httplib::Server> server;
std::thread listener;
std::string secret;         // the page carries it; changes must bring it back
std::string token;
std::vector<std::string> hosts;  // what Host may say: this panel and no other name

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

void refuse(httplib::Response& res, int status, const std::string& reason) {
  res.status = status;
  res.set_content(reason + "\n", "text/plain");
}

bool allowed_host(const std::string& host) {
  for (const std::string& h : hosts) {
    if (host == h) return true;
  }
  return false;
}

// The checks every request passes before any handler runs.
httplib::Server::HandlerResponse check(const httplib::Request& req, httplib::Response& res) {
  using handled = httplib::Server::HandlerResponse;
  if (!token.empty() && req.get_param_value("token") != token &&
      req.get_header_value("X-Panel-Token") != token) {
    refuse(res, 401, "this panel wants its token (?token=...)");
    return handled::Handled;
  }
  // A page of another site, or a name rebound to this address, says so here.
  if (!allowed_host(req.get_header_value("Host"))) {
    refuse(res, 403, "Host \"" + req.get_header_value("Host") + "\" is not this panel");
    return handled::Handled;
  }
  const std::string origin = req.get_header_value("Origin");
  if (req.has_header("Origin") && !allowed_host(origin.substr(origin.find("://") + 3))) {
    refuse(res, 403, "Origin \"" + origin + "\" may not use this panel");
    return handled::Handled;
  }
  const bool page = req.path == "/" || req.path == "/events";
  const bool change = req.path == "/take" || req.path == "/lock";
  if ((page && req.method != "GET") || (change && req.method != "POST")) {
    refuse(res, 405, std::string(req.method) + " is not for " + req.path + ": use " +
                         (page ? "GET" : "POST"));
    return handled::Handled;
  }
  if (change && req.get_header_value("X-Panel-Secret") != secret) {
    refuse(res, 403, "a change needs the page's secret: reload the panel");
    return handled::Handled;
  }
  return handled::Unhandled;
}

// The hub's answer to a change: ok, or why not (409 when an output is locked).
void answer(httplib::Response& res, const std::string& why) {
  if (why.empty()) {
    res.set_content("{\"ok\":true}\n", "application/json");
  } else {
    refuse(res, why.find("locked") != std::string::npos ? 409 : 400, why);
  }
}

// A position from a JSON body: a whole number, or -1.
long position(const json& body, const char* name) {
  const auto it = body.find(name);
  return it != body.end() && it->is_number_integer() ? it->get<long>() : -1;
}

void take(const httplib::Request& req, httplib::Response& res) {
  const json body = json::parse(req.body, nullptr, false);
  if (body.is_discarded() || !body.is_object() || !body.contains("takes") ||
      !body["takes"].is_array()) {
    refuse(res, 400, "the body must be {\"takes\": [{\"output\": N, \"input\": N}, ...]}");
    return;
  }
  panel_salvo salvo;
  for (const json& t : body["takes"]) {
    if (!t.is_object()) {
      refuse(res, 400, "each take must be {\"output\": N, \"input\": N}");
      return;
    }
    salvo[position(t, "output")] = position(t, "input");
  }
  answer(res, hub_request_salvo(salvo));
}

void lock(const httplib::Request& req, httplib::Response& res) {
  const json body = json::parse(req.body, nullptr, false);
  if (body.is_discarded() || !body.is_object() || !body.contains("locked") ||
      !body["locked"].is_boolean()) {
    refuse(res, 400, "the body must be {\"output\": N, \"locked\": true or false}");
    return;
  }
  answer(res, hub_request_lock(position(body, "output"), body["locked"].get<bool>()));
}

void page(const httplib::Request&, httplib::Response& res) {
  std::string html = panel_page_html;
  for (const auto& [mark, value] : {std::pair<std::string, std::string>{"@SECRET@", secret},
                                     std::pair<std::string, std::string>{"@TOKEN@", token}}) {
    for (std::size_t at; (at = html.find(mark)) != std::string::npos;) {
      html.replace(at, mark.size(), value);
    }
  }
  res.set_header("Cache-Control", "no-store");
  res.set_content(html, "text/html; charset=utf-8");
}

// Server-Sent Events: the state, then every event as it comes.
void events(const httplib::Request&, httplib::Response& res) {
  auto next = std::make_shared<std::uint64_t>(0);
  auto started = std::make_shared<bool>(false);
  res.set_header("Cache-Control", "no-store");
  res.set_chunked_content_provider(
      "text/event-stream", [next, started](std::size_t, httplib::DataSink& sink) {
        const auto send = [&sink](const std::string& data) {
          const std::string text = "data: " + data + "\n\n";
          return sink.write(text.data(), text.size());
        };
        if (!*started) {
          *started = true;
          return send(hub_state(*next));
        }
        const hub_news n = hub_wait(*next, keepalive_ms);
        if (n.stopping) {
          sink.done();
          return true;
        }
        if (n.missed) return send(hub_state(*next));
        *next = n.next;
        if (n.events.empty()) return sink.write(": quiet\n\n", 9);
        for (const std::string& e : n.events) {
          if (!send(e)) return false;
        }
        return true;
      });
}

std::string reason_for(int status) {
  switch (status) {
    case 404: return "no such page: the panel is at /";
    case 413: return "the body is over 64 KiB";
    default: return "refused";
  }
}

}  // namespace

int server_start(server_options& o) {
  in_addr addr{};
  if (inet_aton(o.host.c_str(), &addr) == 0) {
    std::fprintf(stderr, "zeph_route_panel: %s is not a numeric IPv4 address\n", o.host.c_str());
    return -1;
  }
  const bool loopback = o.host.rfind("127.", 0) == 0;
  if (!loopback && o.token.empty()) o.token = random_hex(12);
  secret = random_hex(16);
  token = o.token;
  server = std::make_unique<httplib::Server>();
  server->new_task_queue = [] { return new httplib::ThreadPool(worker_threads); };
  server->set_payload_max_length(max_body_bytes);
  server->set_pre_routing_handler(check);
  server->set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (res.body.empty()) res.set_content(reason_for(res.status) + "\n", "text/plain");
  });
  server->Get("/", page);
  server->Get("/events", events);
  server->Post("/take", take);
  server->Post("/lock", lock);
  const int port = o.port == 0 ? server->bind_to_any_port(o.host)
                               : (server->bind_to_port(o.host, o.port) ? o.port : -1);
  if (port < 0) {
    std::fprintf(stderr, "zeph_route_panel: cannot listen on %s port %d\n", o.host.c_str(), o.port);
    return -1;
  }
  const std::string p = ":" + std::to_string(port);
  hosts = {o.host + p};
  if (loopback) hosts.push_back("localhost" + p);
  listener = std::thread([] { server->listen_after_bind(); });
  return port;
}

void server_stop() {
  if (!server) return;
  hub_stop();
  server->stop();
  if (listener.joinable()) listener.join();
  server.reset();
}
