#include "switcher_emulator/emulator.h"

#include <cstring>

#include "router/protocol.h"

namespace {

// Error codes carried as the first parameter of an "ER" reply.
constexpr const char* er_success = "00";
constexpr const char* er_unknown = "01";    // command or query not understood
constexpr const char* er_bad_param = "02";  // parameter missing or not a number
constexpr const char* er_range = "03";      // number names nothing on this switcher
constexpr const char* er_protected = "04";  // destination protected by another controller

// Lists are cut into messages whose frames stay within
// max_frame_before_checksum, which encode_router_frame accepts.
constexpr std::size_t header_bytes = 5;  // SOH, protocol, seq, two letters

// Reads 1 to 8 hexadecimal digits, either case, and nothing else.
bool parse_hex(const std::string& text, std::uint64_t& value) {
  if (text.empty() || text.size() > 8) return false;
  value = 0;
  for (char c : text) {
    const int d = hex_value(c);
    if (d < 0) return false;
    value = value * 16 + static_cast<unsigned>(d);
  }
  return true;
}

// The request's letters as they may be echoed in a reply: a parameter must not
// carry TAB or control bytes, so anything odd is shown as "??".
std::string echoed_letters(const router_message& req) {
  std::string letters(req.request, strnlen(req.request, 2));
  if (letters.size() != 2) return "??";
  for (char c : letters) {
    if (c <= ' ' || c > '~') return "??";
  }
  return letters;
}

router_message reply(const char* letters, std::vector<std::string> params) {
  return make_router_request(letters, std::move(params));
}

router_message error_reply(const char* code, const router_message& req) {
  return reply("ER", {code, echoed_letters(req)});
}

// Marks every destination currently fed by source position src as changed.
void mark_fed_by(emulator_state& st, std::uint32_t src) {
  for (std::size_t i = 0; i < st.routes.size(); ++i) {
    if (st.routes[i] == src) st.changed[i] = true;
  }
}

// Cuts groups into "NQ" messages of kind, each carrying its own group count
// and fitting one frame; all but the last announce continuation with seq '1'.
std::vector<router_message> names_reply(const char* kind,
                                        const std::vector<std::vector<std::string>>& groups) {
  std::vector<router_message> out;
  std::vector<std::string> pending;
  std::size_t count = 0;
  // Header, kind and a count of up to three digits (at most 400 hex).
  const std::size_t fixed = header_bytes + 1 + std::strlen(kind) + 1 + 3;
  std::size_t used = fixed;
  auto flush = [&]() {
    std::vector<std::string> params = {kind, hex_parameter(count)};
    params.insert(params.end(), pending.begin(), pending.end());
    router_message m = reply("NQ", std::move(params));
    m.seq = '1';
    out.push_back(std::move(m));
    pending.clear();
    count = 0;
    used = fixed;
  };
  for (const std::vector<std::string>& g : groups) {
    std::size_t size = 0;
    for (const std::string& p : g) size += 1 + p.size();
    if (count > 0 && used + size > max_frame_before_checksum) flush();
    pending.insert(pending.end(), g.begin(), g.end());
    used += size;
    ++count;
  }
  if (count > 0 || out.empty()) flush();
  out.back().seq = '0';
  return out;
}

// The group value of a destination or source: the mask of the levels it has.
std::string level_mask(const emulator_config& cfg) {
  std::uint32_t mask = 0;
  for (const emulator_level& l : cfg.levels) mask |= 1u << (l.number & 31);
  return hex_parameter(mask);
}

std::vector<router_message> answer_qn(const emulator_config& cfg, const emulator_state& st,
                                      const router_message& req) {
  std::vector<std::vector<std::string>> groups;
  const std::string kind = req.parameters.empty() ? "" : req.parameters[0];
  if (kind == "L") {
    for (const emulator_level& l : cfg.levels) groups.push_back({l.name, hex_parameter(l.number), "0"});
    return names_reply("L", groups);
  }
  if (kind != "IS" && kind != "ID") return {error_reply(er_bad_param, req)};
  const bool dest = kind == "ID";
  const std::vector<std::string>& names = dest ? st.output_names : st.input_names;
  const std::uint64_t base = dest ? cfg.output_base : cfg.input_base;
  const std::string mask = level_mask(cfg);
  for (std::size_t i = 0; i < names.size(); ++i) {
    groups.push_back({names[i], hex_parameter(base + i), "0", mask});
  }
  return names_reply(kind.c_str(), groups);
}

std::vector<router_message> answer_qd(const emulator_config& cfg, emulator_state& st) {
  std::vector<router_message> out;
  for (std::size_t i = 0; i < st.changed.size(); ++i) {
    if (!st.changed[i]) continue;
    router_message m = reply("DQ", {st.output_names[i], hex_parameter(cfg.output_base + i)});
    m.seq = '1';
    out.push_back(std::move(m));
    st.changed[i] = false;
  }
  if (out.empty()) return {reply("ER", {er_success, "QD"})};
  out.back().seq = '0';
  return out;
}

std::vector<router_message> answer_bk(const emulator_config& cfg, emulator_state& st,
                                      const router_message& req) {
  const std::vector<std::string>& p = req.parameters;
  const router_message done = reply("ER", {er_success, "BK"});
  if (p.empty() || p[0] == "D") return {done};  // handshake, or the last setup command
  const std::string& what = p[0];
  if (what == "N") return {reply("KB", {"N", cfg.model})};
  if (what == "R") return {reply("KB", {"R", cfg.firmware_revision})};
  if (what == "T") return {reply("KB", {"T", cfg.firmware_type})};
  if (what == "F") return {reply("KB", {"F", hex_parameter(st.change_flags)})};
  if (what == "I" || what == "E") {
    return {p.size() >= 2 ? done : error_reply(er_bad_param, req)};
  }
  if (what == "f") {
    std::uint64_t bits = 0;
    if (p.size() < 2 || !parse_hex(p[1], bits)) return {error_reply(er_bad_param, req)};
    st.change_flags &= ~static_cast<std::uint32_t>(bits);
    return {done};
  }
  return {error_reply(er_unknown, req)};
}

std::vector<router_message> answer_qi(const emulator_config& cfg, const emulator_state& st,
                                      const router_message& req) {
  std::uint64_t dest = 0;
  std::uint64_t level = 0;
  if (req.parameters.size() < 2 || !parse_hex(req.parameters[0], dest) ||
      !parse_hex(req.parameters[1], level)) {
    return {error_reply(er_bad_param, req)};
  }
  bool known_level = false;
  for (const emulator_level& l : cfg.levels) known_level = known_level || l.number == level;
  if (dest < cfg.output_base || dest - cfg.output_base >= cfg.outputs || !known_level) {
    return {error_reply(er_range, req)};
  }
  // Destination, level, lock flag (never set here), protect flag, source.
  const std::size_t d = dest - cfg.output_base;
  const char* protect = st.protect[d] == emulator_protect::none ? "0" : "1";
  const std::uint64_t src = cfg.input_base + st.routes[d];
  return {reply("IQ", {hex_parameter(dest), hex_parameter(level), "0", protect, hex_parameter(src)})};
}

// The destination a request names in its first parameter, by position; false
// with the error reply in answer when it names none.
bool named_output(const emulator_config& cfg, const emulator_state& st, const router_message& req,
                  std::size_t& position, router_message& answer) {
  std::uint64_t dest = 0;
  if (req.parameters.empty() || !parse_hex(req.parameters[0], dest)) {
    answer = error_reply(er_bad_param, req);
    return false;
  }
  if (dest < cfg.output_base || dest - cfg.output_base >= st.routes.size()) {
    answer = error_reply(er_range, req);
    return false;
  }
  position = dest - cfg.output_base;
  return true;
}

// "PR" and "UP": the client protects a destination, or lifts its own
// protection; one held by another controller refuses both.
std::vector<router_message> answer_protect(const emulator_config& cfg, emulator_state& st,
                                           const router_message& req, bool on) {
  std::size_t d = 0;
  router_message answer;
  if (!named_output(cfg, st, req, d, answer)) return {answer};
  if (st.protect[d] == emulator_protect::other_controller) return {error_reply(er_protected, req)};
  st.protect[d] = on ? emulator_protect::client : emulator_protect::none;
  return {reply("ER", {er_success, echoed_letters(req)})};
}

std::vector<router_message> answer_ti(const emulator_config& cfg, emulator_state& st,
                                      const router_message& req) {
  std::uint64_t dest = 0;
  std::uint64_t src = 0;
  if (req.parameters.size() < 2 || !parse_hex(req.parameters[0], dest) ||
      !parse_hex(req.parameters[1], src)) {
    return {error_reply(er_bad_param, req)};
  }
  std::size_t d = 0;
  router_message out_of_range;
  if (named_output(cfg, st, req, d, out_of_range) &&
      st.protect[d] == emulator_protect::other_controller) {
    return {error_reply(er_protected, req)};
  }
  if (!emulator_take(cfg, st, dest, src)) return {error_reply(er_range, req)};
  return {reply("ER", {er_success, "TI"})};
}

std::string generated_name(const char* prefix, std::size_t position) {
  return std::string(prefix) + " " + std::to_string(position + 1);
}

}  // namespace

bool emulator_valid_name(const std::string& name) {
  if (name.empty() || name.size() > emulator_max_name) return false;
  for (char c : name) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x20 || b == 0x7F) return false;
  }
  return true;
}

bool emulator_init(const emulator_config& cfg, emulator_state& st, std::string& error) {
  st = emulator_state{};
  if (cfg.outputs > emulator_max_ports || cfg.inputs > emulator_max_ports || cfg.inputs == 0) {
    error = "destinations must be 0 to 1024 and sources 1 to 1024";
    return false;
  }
  if (cfg.output_names.size() > cfg.outputs || cfg.input_names.size() > cfg.inputs) {
    error = "more names than destinations or sources";
    return false;
  }
  for (std::size_t i = 0; i < cfg.outputs; ++i) {
    const bool given = i < cfg.output_names.size() && !cfg.output_names[i].empty();
    st.output_names.push_back(given ? cfg.output_names[i] : generated_name("OUT", i));
    st.routes.push_back(static_cast<std::uint32_t>(i % cfg.inputs));
  }
  for (std::size_t i = 0; i < cfg.inputs; ++i) {
    const bool given = i < cfg.input_names.size() && !cfg.input_names[i].empty();
    st.input_names.push_back(given ? cfg.input_names[i] : generated_name("CAM", i));
  }
  for (const std::vector<std::string>* names : {&st.output_names, &st.input_names}) {
    for (const std::string& n : *names) {
      if (!emulator_valid_name(n)) {
        error = "name \"" + n + "\" is empty, too long or holds control bytes";
        return false;
      }
    }
  }
  if (cfg.levels.empty()) {
    error = "at least one level is needed";
    return false;
  }
  std::uint32_t numbers_seen = 0;
  for (const emulator_level& l : cfg.levels) {
    if (l.number > 31 || !emulator_valid_name(l.name)) {
      error = "level \"" + l.name + "\" needs a valid name and a number 0 to 31";
      return false;
    }
    // Distinct numbers 0 to 31 also keep the levels to 32.
    if ((numbers_seen & (1u << l.number)) != 0) {
      error = "level number " + std::to_string(l.number) + " is given twice";
      return false;
    }
    numbers_seen |= 1u << l.number;
  }
  // Switcher numbers are 16-bit on the wire's names lists.
  if (cfg.outputs > 0 && std::uint64_t{cfg.output_base} + cfg.outputs - 1 > 65535) {
    error = "destinations from " + std::to_string(cfg.output_base) + " would be numbered past 65535";
    return false;
  }
  if (std::uint64_t{cfg.input_base} + cfg.inputs - 1 > 65535) {
    error = "sources from " + std::to_string(cfg.input_base) + " would be numbered past 65535";
    return false;
  }
  st.changed.assign(cfg.outputs, false);
  for (const auto& [dest, src] : cfg.routes) {
    if (!emulator_take(cfg, st, dest, src)) {
      error = "route " + std::to_string(dest) + ":" + std::to_string(src) + " is out of range";
      return false;
    }
  }
  // The initial table is what the switcher starts with, not a change.
  st.changed.assign(cfg.outputs, false);
  st.protect.assign(cfg.outputs, emulator_protect::none);
  for (const std::uint32_t dest : cfg.protected_outputs) {
    if (!emulator_protect_output(cfg, st, dest, true)) {
      error = "no destination " + std::to_string(dest) + " to protect";
      return false;
    }
  }
  return true;
}

bool emulator_protect_output(const emulator_config& cfg, emulator_state& st, std::uint64_t dest,
                             bool on) {
  if (dest < cfg.output_base || dest - cfg.output_base >= st.protect.size()) return false;
  st.protect[dest - cfg.output_base] = on ? emulator_protect::other_controller : emulator_protect::none;
  return true;
}

bool emulator_take(const emulator_config& cfg, emulator_state& st, std::uint64_t dest,
                   std::uint64_t src) {
  if (dest < cfg.output_base || dest - cfg.output_base >= st.routes.size()) return false;
  if (src < cfg.input_base || src - cfg.input_base >= st.input_names.size()) return false;
  const std::size_t d = dest - cfg.output_base;
  st.routes[d] = static_cast<std::uint32_t>(src - cfg.input_base);
  st.changed[d] = true;
  return true;
}

bool emulator_rename(const emulator_config& cfg, emulator_state& st, bool output,
                     std::uint64_t number, const std::string& name) {
  std::vector<std::string>& names = output ? st.output_names : st.input_names;
  const std::uint64_t base = output ? cfg.output_base : cfg.input_base;
  if (!emulator_valid_name(name) || number < base || number - base >= names.size()) {
    return false;
  }
  const std::size_t pos = number - base;
  names[pos] = name;
  if (output) {
    st.change_flags |= change_flag_dest_names;
    st.changed[pos] = true;
  } else {
    st.change_flags |= change_flag_source_names;
    mark_fed_by(st, static_cast<std::uint32_t>(pos));
  }
  return true;
}

std::vector<router_message> emulator_answer(const emulator_config& cfg, emulator_state& st,
                                            const router_message& req) {
  if (req.protocol != 'N') return {error_reply(er_unknown, req)};
  if (router_request_is(req, "BK")) return answer_bk(cfg, st, req);
  if (router_request_is(req, "QN")) return answer_qn(cfg, st, req);
  if (router_request_is(req, "QD")) return answer_qd(cfg, st);
  if (router_request_is(req, "QI")) return answer_qi(cfg, st, req);
  if (router_request_is(req, "TI")) return answer_ti(cfg, st, req);
  if (router_request_is(req, "PR")) return answer_protect(cfg, st, req, true);
  if (router_request_is(req, "UP")) return answer_protect(cfg, st, req, false);
  return {error_reply(er_unknown, req)};
}
