#pragma once

#include <cstdint>
#include <string>

// Folders and free space; failures come back as false, -1 or the zero document, never thrown.
namespace vistrel::host {

// Creates the folder and every missing parent; "already exists" is success.
bool create_folder(const std::string& path);
bool folder_exists(const std::string& path);
bool file_exists(const std::string& path);

// Bytes available to the calling user on the folder's volume (the folder is created first);
// -1 on failure.
int64_t free_space(const std::string& folder);
// Total bytes of the folder's volume; -1 on failure.
int64_t total_space(const std::string& folder);

// {"total_space":"500","available_space":"123","unit":"GB"}; unit "KB", "MB" or "GB";
// any other unit gives the empty text.
std::string disk_space_document(const std::string& folder, const std::string& unit);

// base + "/" + name + "_%Y-%m-%d" of today's UTC date.
std::string dated_folder_name(const std::string& base, const std::string& name);

}  // namespace vistrel::host
