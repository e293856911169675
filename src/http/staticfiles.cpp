#include "http/staticfiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "host/confinement.h"
#include "startup/configuration.h"

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

bool same_file(const struct stat& opened, const std::string& path) {
    struct stat other {};
    return stat(path.c_str(), &other) == 0 && other.st_dev == opened.st_dev &&
           other.st_ino == opened.st_ino;
}

// The server's own data: never served, wherever the static root lies.
bool is_private_file(const struct stat& opened) {
    const std::string& database = configuration().database;
    for (const std::string& path :
         {database, database + "-wal", database + "-shm", database + "-journal", log_file_path()}) {
        if (same_file(opened, path)) return true;
    }
    return false;
}

char kFileNotFound[] =
    "<html><head><title>File not found</title></head><body>File not found</body></html>";

}  // namespace

FILE* open_static_file(const std::string& relative) {
    const std::string& root = configuration().security.static_root;
    // Neither "..", an absolute path nor a symbolic link leads out of the root.
    int descriptor = host::open_beneath(root.empty() ? "." : root, relative);
    if (descriptor < 0) return nullptr;
    // Only regular files: a folder opens but cannot be read, and a FIFO would block the
    // connection's thread.
    struct stat info {};
    if (fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode) || is_private_file(info)) {
        ::close(descriptor);
        return nullptr;
    }
    // Reads block as usual from here on.
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
    FILE* file = fdopen(descriptor, "rb");
    if (file == nullptr) ::close(descriptor);
    return file;
}

MHD_Result serve_static_file(MHD_Connection* connection, const std::string& url) {
    FILE* file = open_static_file(url.empty() ? url : url.substr(1));
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
