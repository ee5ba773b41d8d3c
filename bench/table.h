#pragma once

// The one table that a benchmark run prints, and the small statistics and
// formatting its rows need.

#include <cstdio>
#include <string>
#include <vector>

// One measured quantity. Empty cells print as "-".
struct bench_row {
  std::string what;     // what was measured, and how
  std::string result;   // the measured value with its unit
  std::string floor;    // the least the specified behaviour allows, if any
  std::string ratio;    // result / floor
  std::string target;   // the goal it is judged against, if any
  std::string verdict;  // "met", "MISSED" or empty
  std::string notes;    // spread over repeats, sample counts, breakdowns
};

// printf into a std::string.
[[nodiscard, gnu::format(printf, 1, 2)]] std::string strf(const char* fmt, ...);

// The value below which the fraction q (0..1) of the sorted samples lie,
// nearest-rank; 0 for no samples.
[[nodiscard]] double percentile(std::vector<double> samples, double q);

// A progress line on stderr, with the seconds since the first one.
[[gnu::format(printf, 1, 2)]] void progress(const char* fmt, ...);

// "met" when ok, else "MISSED".
[[nodiscard]] const char* verdict(bool ok);

// One line naming the machine: cores, CPU model, kernel, compiler.
[[nodiscard]] std::string machine_description();

// Prints the rows as a Markdown table.
void print_table(const std::vector<bench_row>& rows, std::FILE* out);
