#include "http/staticfiles.h"

#include <sys/stat.h>

#include <cstdio>

namespace vistrel::http {

namespace {

constexpr size_t kBlockSize = 32768;

ssize_t read_file_block(void* closure, uint64_t position, char* buffer, size_t max) {
    auto* file = static_cast<FILE*>(closure);
    if (fseeko(file, static_cast<off_t>(position), SEEK_SET) != 0) {
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    size_t count = std::fread(buffer, 1, max, file);
    if (count == 0) {
        return std::ferror(file) ? MHD_CONTENT_READER_END_WITH_ERROR
                                 : MHD_CONTENT_READER_END_OF_STREAM;
    }
    return static_cast<ssize_t>(count);
}

void close_file(void* closure) {
    std::fclose(static_cast<FILE*>(closure));
}

char kFileNotFound[] =
    "<html><head><title>File not found</title></head><body>File not found</body></html>";

}  // namespace

MHD_Result serve_static_file(MHD_Connection* connection, const std::string& url) {
    std::string path = url.empty() ? url : url.substr(1);
    // Only regular files: a folder opens but cannot be read, and a FIFO would block the
    // connection's thread.
    struct stat info {};
    bool regular = stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
    FILE* file = regular ? std::fopen(path.c_str(), "rb") : nullptr;
    if (file == nullptr) {
        MHD_Response* response = MHD_create_response_from_buffer(
            sizeof kFileNotFound - 1, kFileNotFound, MHD_RESPMEM_PERSISTENT);
        MHD_Result result = MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, response);
        MHD_destroy_response(response);
        return result;
    }
    MHD_Response* response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kBlockSize,
                                                               &read_file_block, file, &close_file);
    if (response == nullptr) {
        std::fclose(file);
        return MHD_NO;
    }
    MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace vistrel::http
