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
    if (line[i] == '"') {
      const std::size_t close = line.find('"', i + 1);
      if (close == std::string::npos) {
        error = "a quote is not closed";
        return false;
      }
      if (close + 1 < line.size() && !is_blank(line[close + 1])) {
        error = "a blank must follow a closing quote";
        return false;
      }
      w.text = line.substr(i + 1, close - i - 1);
      w.quoted = true;
      i = close + 1;
    } else {
      std::size_t end = i;
      while (end < line.size() && !is_blank(line[end])) ++end;
      w.text = line.substr(i, end - i);
      i = end;
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
  } else if ((position = tables_find(t, output, word.text)) < 0) {
    error = std::string("no ") + what + " is named \"" + word.text + "\" in the latest " + plural +
            " report";
    return -1;
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
