#include "database/capturecleanup.h"

#include <unistd.h>

#include <cerrno>
#include <optional>

#include "database/captureindex.h"
#include "host/confinement.h"
#include "startup/logger.h"

namespace vistrel::database {

CleanupCounts delete_capture_files(const std::list<capture::CaptureFileRecord>& files,
                                   const std::vector<std::string>& owned_folders) {
    CleanupCounts counts;
    for (const capture::CaptureFileRecord& file : files) {
        const std::optional<std::string> real = host::real_path(file.file_path);
        if (real && !host::lies_beneath(*real, owned_folders)) {
            ++counts.errors;
            LOG_ERROR("Removing file %s refused: it lies outside the capture folders",
                      file.file_path.c_str());
        } else if (real && ::unlink(real->c_str()) == 0) {
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
