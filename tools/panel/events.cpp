#include "panel/events.h"

#include <deque>

namespace {

// A stream further behind than this gets the whole state again, which costs
// no more than the events it missed.
constexpr std::size_t kept_events = 2000;
constexpr std::size_t kept_bytes = std::size_t{4} << 20;

std::deque<panel_event> kept;  // numbered first onwards
std::uint64_t first = 0;
std::size_t bytes = 0;

}  // namespace

void events_publish(const panel_events& fresh) {
  for (const panel_event& e : fresh) {
    kept.push_back(e);
    bytes += e.json.size();
  }
  while (!kept.empty() && (kept.size() > kept_events || bytes > kept_bytes)) {
    bytes -= kept.front().json.size();
    kept.pop_front();
    ++first;
  }
}

std::uint64_t events_next() { return first + kept.size(); }

bool events_since(std::uint64_t& next, bool debug, std::size_t max_bytes, std::string& out) {
  if (next < first) return false;
  for (; next < events_next() && out.size() < max_bytes; ++next) {
    const panel_event& e = kept[next - first];
    if (debug || !e.debug) out += events_frame(e.json);
  }
  return true;
}

std::string events_frame(const std::string& json) { return "data: " + json + "\n\n"; }
