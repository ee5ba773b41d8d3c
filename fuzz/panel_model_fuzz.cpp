// Arbitrary backend output through the panel's model: report records and
// diagnostic lines of any bytes, with takes, locks, dismissals and the clock
// in between, as the panel's loop and its web server drive it.
//
// The input is cut into lines. A line starting with '<' is a diagnostic line,
// which the parent client also reads for takes the switcher refused;
// any other line is a line of a report record, which an empty line ends. A
// line starting with 0x01 is a request instead: its next bytes choose what
// (take, lock, dismiss, expire, state, end) and its positions.
//
// Checked, on every input: no event and no state is anything but one JSON
// object that parses back, whatever bytes the names and lines held; and
// panel_text turns any bytes into valid UTF-8 that keeps every valid UTF-8
// text as it was.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz_support.h"
#include "panel/model.h"
#include "parent_client/client.h"

namespace {

using json = nlohmann::json;

// The JSON library's own judgement, as the oracle: it throws on invalid UTF-8.
bool valid_utf8(const std::string& text) {
  try {
    (void)json(text).dump();
    return true;
  } catch (const json::type_error&) {
    return false;
  }
}

void check_json(const std::string& text) {
  const json j = json::parse(text, nullptr, false);
  FUZZ_CHECK(!j.is_discarded() && j.is_object() && j.contains("t"));
}

void check_events(const panel_events& events) {
  for (const panel_event& e : events) check_json(e.json);
}

// A request line: 0x01, what, output, input.
void request(panel_model& m, const std::string& line, us_time_t& now) {
  const auto at = [&line](std::size_t i) {
    return i < line.size() ? static_cast<unsigned char>(line[i]) : 0;
  };
  const long output = at(2), input = at(3);
  switch (at(1) % 6) {
    case 0:
      if (model_check_salvo(m, {{output, input}}).reason.empty()) {
        check_events(model_takes_sent(m, {{output, input}}, line.substr(1), now));
      }
      break;
    case 1:
      if (model_check_lock(m, output).empty()) check_events(model_set_lock(m, output, at(3) & 1));
      break;
    case 2: {
      panel_events events;
      (void)model_dismiss(m, output, events);
      check_events(events);
      break;
    }
    case 3:
      now += panel_confirm_us;
      check_events(model_expire(m, now));
      break;
    case 4: check_json(model_state(m, at(3) & 1)); break;
    default: check_events(model_backend_ended(m, line.substr(2))); break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string text = panel_text(input);
  FUZZ_CHECK(valid_utf8(text));
  if (valid_utf8(input)) FUZZ_CHECK(text == input);

  report_tables tables;
  panel_model m;
  m.tables = &tables;
  parent_message record;
  parent_client client;  // no child: only its reading of diagnostic lines
  us_time_t now = 1;
  std::size_t start = 0;
  while (start <= input.size()) {
    std::size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    const std::string line = input.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line[0] == '\x01') {
      request(m, line, now);
    } else if (!line.empty() && line[0] == '<') {
      check_events(model_read_diag(m, line));
      client.child.err_buf = line + "\n";
      client_take_output(client);
      for (; !client.refused.empty(); client.refused.pop_front()) {
        check_events(model_take_refused(m, client.refused.front().output, client.refused.front().code));
      }
    } else if (line.empty()) {
      std::vector<route_seen> changes;
      tables_apply(tables, record, changes);
      check_events(model_read_record(m, record, changes));
      parent_message_clear(record);
    } else {
      parent_message_parse_line(record, line);
    }
  }
  check_json(model_state(m, true));
  check_json(model_error(input).front().json);
  return 0;
}
