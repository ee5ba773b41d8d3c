#include "parent_client/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

temp_dir::temp_dir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zeph-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) path = pattern;
}

temp_dir::~temp_dir() {
  std::error_code ec;
  if (!path.empty()) std::filesystem::remove_all(path, ec);
}

std::string temp_dir::write(const std::string& name, const std::string& contents) const {
  std::string file = path + "/" + name;
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << contents;
  return file;
}
