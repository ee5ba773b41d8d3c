#include "console/words.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool all_digits(const std::string& s) {
  return !s.empty() && s.size() < 10 && s.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

bool words_split(const std::string& line, std::vector<console_word>& words, std::string& error) {
  words.clear();
  for (std::size_t i = 0; i < line.size();) {
    if (is_blank(line[i])) {
      ++i;
      continue;
    }
    console_word w;
    w.quoted = line[i] == '"';
    bool closed = !w.quoted;
    for (i += w.quoted ? 1 : 0; i < line.size(); ++i) {
      const char c = line[i];
      if (c == '\\') {
        if (++i == line.size()) {
          error = "the line ends in a backslash (\\\\ stands for one)";
          return false;
        }
        w.text += line[i];
      } else if (w.quoted && c == '"') {
        closed = true;
        ++i;
        break;
      } else if (!w.quoted && is_blank(c)) {
        break;
      } else {
        w.text += c;
      }
    }
    if (!closed) {
      error = "a quote is not closed";
      return false;
    }
    if (w.quoted && i < line.size() && !is_blank(line[i])) {
      error = "a blank must follow a closing quote";
      return false;
    }
    words.push_back(std::move(w));
  }
  return true;
}

long words_position(const report_tables& t, bool output, const console_word& word,
                    std::string& error) {
  const char* what = output ? "output" : "input";
  const char* plural = output ? "outputs" : "inputs";
  long position = -1;
  if (!word.quoted && all_digits(word.text)) {
    position = std::stol(word.text);
  } else {
    const std::vector<long> named = tables_named(t, output, word.text);
    if (named.empty()) {
      error = std::string("no ") + what + " is named \"" + word.text + "\" in the latest " +
              plural + " report";
      return -1;
    }
    if (named.size() > 1) {
      error = std::string(plural) + " " + std::to_string(named[0]) + " and " +
              std::to_string(named[1]) + " are both named \"" + word.text +
              "\": give the position";
      return -1;
    }
    position = named[0];
  }
  const long count = tables_count(t, plural);
  if (position >= count) {
    error = std::string(what) + " " + std::to_string(position) + " is out of range: " +
            (count < 0 ? std::string("no info report has come yet")
                       : "the backend uses " + std::to_string(count) + " " + plural);
    return -1;
  }
  return position;
}
