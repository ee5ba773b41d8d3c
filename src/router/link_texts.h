#pragma once

#include <string>
#include <string_view>

// The diagnostic lines that tell what became of the switcher link. The
// backend writes them; the tools that follow the link (the panel, the soak,
// the benchmarks) match them through link_line_is, so this is the one copy.
// Each is a format for diag(): "%s" takes the error text.
inline constexpr char link_trying[] = "<NOTE>Trying to connect to router...\n";
inline constexpr char link_connected_at_once[] = "<NOTE>Connected to router, right away\n";
inline constexpr char link_connected[] = "<NOTE>Connection sucessful.\n";
inline constexpr char link_connect_failed[] = "<ERR>Connection failed, %s\n";
inline constexpr char link_cannot_connect[] = "<ERR>Failed to connect to router, %s\n";
inline constexpr char link_closed[] = "<NOTE>Connection to router closed\n";
// Every frame sent, and every message or NAK received, as debug lines ("%s"
// takes the frame's text, control bytes included): the tools follow the
// answers to takes by them.
inline constexpr char link_frame_sent[] = "<DBG>Send to router: %s\n";
inline constexpr char link_message_received[] = "<DBG>Router: MSG %s\n";
inline constexpr char link_nak_received[] = "<DBG>Router: NAK %s\n";

// Whether a diagnostic line (with or without its "\n") is the one text
// writes: the same up to text's "%s" or line end.
[[nodiscard]] inline bool link_line_is(std::string_view line, std::string_view text) {
  const std::string_view fixed = text.substr(0, text.find_first_of("%\n"));
  return line.substr(0, fixed.size()) == fixed;
}

// The line text writes with the error text why in place of its "%s".
[[nodiscard]] inline std::string link_text(std::string_view text, std::string_view why) {
  std::string line(text);
  const std::size_t at = line.find("%s");
  if (at != std::string::npos) line.replace(at, 2, why);
  return line;
}
