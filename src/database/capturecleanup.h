#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <vector>

#include "capture/capturefilerecord.h"

namespace vistrel::database {

struct CleanupCounts {
    size_t removed = 0;  // files deleted from the disk
    size_t errors = 0;   // files that could not be deleted
};

// Deletes each file and its row of the capture index; the row goes even when the file was
// already gone. Only files below `owned_folders` are deleted, judged on the real path so that
// neither ".." nor a symbolic link leads out; anything else, a folder registered by mistake
// included, counts as an error.
CleanupCounts delete_capture_files(const std::list<capture::CaptureFileRecord>& files,
                                   const std::vector<std::string>& owned_folders);

}  // namespace vistrel::database
