#pragma once

#include <string>
#include <vector>

#include "parent_client/report_tables.h"

// The words of a console command line, and the outputs and inputs they name.

struct console_word {
  std::string text;
  bool quoted = false;  // written in double quotes: always a name, never a position
};

// Splits line into words at blanks and tabs; a word in double quotes may hold
// blanks ("OUT 3"), and a backslash keeps the character after it as it is,
// inside quotes or out (\" a quote, \\ a backslash, \  a blank). False,
// with the reason in error, when a quote is not closed, a quoted word runs
// into the next, or the line ends in a lone backslash.
[[nodiscard]] bool words_split(const std::string& line, std::vector<console_word>& words,
                               std::string& error);

// The position an OUT (output: true) or IN word names: digits are a
// zero-based position, anything else a name from the latest outputs or inputs
// report, which must name one position only. The position must be below the
// active count of the latest info report, as the backend ignores others. -1,
// with the reason in error, when the word names nothing the backend would
// take, or more than one.
[[nodiscard]] long words_position(const report_tables& t, bool output, const console_word& word,
                                  std::string& error);
