#pragma once

#include <string>

// A private temporary directory (for a test, or for the configuration the
// console writes for its emulator), removed with all it holds when the object
// goes. path is empty when it could not be made.
struct temp_dir {
  temp_dir();
  ~temp_dir();
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;

  // Writes contents to the file name inside the directory; returns its path.
  std::string write(const std::string& name, const std::string& contents) const;
  std::string path;
};
