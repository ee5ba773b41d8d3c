#include "panel/hub.h"

#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>

#include "panel/model.h"

namespace {

// Events kept for streams that are behind; one further back gets the state.
constexpr std::size_t kept_events = 2000;

std::mutex mutex;
std::condition_variable news;
panel_model model;
std::deque<std::string> events;  // numbered first_event onwards
std::uint64_t first_event = 0;
std::deque<panel_salvo> salvos;
bool stopping = false;
int wake[2] = {-1, -1};

// With the lock held.
void publish(const panel_events& fresh) {
  if (fresh.empty()) return;
  for (const std::string& e : fresh) events.push_back(e);
  while (events.size() > kept_events) {
    events.pop_front();
    ++first_event;
  }
  news.notify_all();
}

std::uint64_t next_event() { return first_event + events.size(); }

}  // namespace

bool hub_open() { return pipe2(wake, O_NONBLOCK | O_CLOEXEC) == 0; }

int hub_wake_fd() { return wake[0]; }

void hub_take_record(const parent_message& record) {
  const std::lock_guard<std::mutex> lock(mutex);
  publish(model_take_record(model, record));
}

void hub_take_diag(const std::string& line) {
  const std::lock_guard<std::mutex> lock(mutex);
  publish(model_take_diag(model, line));
}

void hub_reply_error(const std::string& text) {
  const std::lock_guard<std::mutex> lock(mutex);
  publish(model_error(text));
}

void hub_backend_ended(const std::string& how) {
  const std::lock_guard<std::mutex> lock(mutex);
  publish(model_backend_ended(model, how));
}

void hub_tick() {
  const std::lock_guard<std::mutex> lock(mutex);
  publish(model_expire(model, monotonic_now_us()));
}

std::vector<panel_salvo> hub_take_salvos() {
  char drain[64];
  while (read(wake[0], drain, sizeof drain) > 0) {
  }
  const std::lock_guard<std::mutex> lock(mutex);
  std::vector<panel_salvo> taken(salvos.begin(), salvos.end());
  salvos.clear();
  return taken;
}

void hub_stop() {
  const std::lock_guard<std::mutex> lock(mutex);
  stopping = true;
  news.notify_all();
}

std::string hub_state(std::uint64_t& next) {
  const std::lock_guard<std::mutex> lock(mutex);
  next = next_event();
  return model_state(model);
}

hub_news hub_wait(std::uint64_t next, int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex);
  news.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                [next] { return stopping || next_event() > next; });
  hub_news n;
  n.stopping = stopping;
  if (next < first_event) {
    n.missed = true;
    n.next = next_event();
    return n;
  }
  for (std::uint64_t i = next; i < next_event(); ++i) n.events.push_back(events[i - first_event]);
  n.next = next_event();
  return n;
}

std::string hub_request_salvo(const panel_salvo& salvo) {
  if (salvo.empty()) return "no take: arm a crosspoint first";
  const std::lock_guard<std::mutex> lock(mutex);
  for (const auto& [output, input] : salvo) {
    std::string why = model_check_take(model, output, input);
    if (!why.empty()) return why;
  }
  salvos.push_back(salvo);
  publish(model_takes_sent(model, salvo, monotonic_now_us()));
  (void)!write(wake[1], "t", 1);
  return "";
}

std::string hub_request_lock(long output, bool locked) {
  const std::lock_guard<std::mutex> lock(mutex);
  std::string why = model_check_lock(model, output);
  if (!why.empty()) return why;
  publish(model_set_lock(model, output, locked));
  return "";
}
