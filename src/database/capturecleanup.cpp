#include "database/capturecleanup.h"

#include <unistd.h>

#include <cerrno>

#include "database/captureindex.h"
#include "startup/logger.h"

namespace vistrel::database {

CleanupCounts delete_capture_files(const std::list<capture::CaptureFileRecord>& files) {
    CleanupCounts counts;
    for (const capture::CaptureFileRecord& file : files) {
        if (::unlink(file.file_path.c_str()) == 0) {
            ++counts.removed;
            LOG_NORMAL("Removed file %s", file.file_path.c_str());
        } else {
            ++counts.errors;
            LOG_ERROR("Removing file %s failed with error code: %ld", file.file_path.c_str(),
                      static_cast<long>(errno));
        }
        if (remove_capture_file(file.file_path) != 0) {
            LOG_WARNING("Didnt remove file '%s' from internal database", file.file_path.c_str());
        } else {
            LOG_NORMAL("Removed file '%s' from internal database", file.file_path.c_str());
        }
    }
    return counts;
}

}  // namespace vistrel::database
