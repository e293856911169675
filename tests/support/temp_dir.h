#pragma once

#include <string>

namespace vistrel::testing {

// A fresh folder under /tmp, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + relative
    std::string file(const std::string& relative) const { return path_ + "/" + relative; }

  private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);

}  // namespace vistrel::testing
