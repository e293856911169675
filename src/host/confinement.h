#pragma once

#include <optional>
#include <string>
#include <vector>

// Keeping file access inside the folders the server owns, whatever a client names.
namespace vistrel::host {

// The path with every symbolic link, "." and ".." resolved; nullopt (errno set) when it does not
// exist or cannot be resolved.
std::optional<std::string> real_path(const std::string& path);

// Whether the resolved path `real` lies strictly below one of `roots` (each resolved too; a
// root that does not exist confines nothing).
bool lies_beneath(const std::string& real, const std::vector<std::string>& roots);

// Opens `relative` read-only below the folder `root`: absolute paths, ".." and symbolic links
// that would lead out of it are refused. A descriptor (the caller closes it), or -1 with errno.
int open_beneath(const std::string& root, const std::string& relative);

}  // namespace vistrel::host
