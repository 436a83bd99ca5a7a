#include "TempDir.h"

#include <glib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace framework_test {

TempDir::TempDir() {
  gchar* made = g_dir_make_tmp("chd-framework-XXXXXX", nullptr);
  if (made == nullptr) {
    throw std::runtime_error("cannot make a temporary directory");
  }
  mPath = made;
  g_free(made);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(mPath, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& text) const {
  const std::string full = mPath + "/" + name;
  std::ofstream(full, std::ios::binary | std::ios::trunc) << text;
  return full;
}

}  // namespace framework_test
