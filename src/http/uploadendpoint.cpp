#include "http/uploadendpoint.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>

#include "capture/capturefile.h"
#include "engine/engineresult.h"
#include "engine/watchkeepprocess.h"
#include "host/disk.h"
#include "host/paths.h"
#include "http/connectionrecord.h"
#include "http/pages.h"
#include "session/replies.h"
#include "session/startrequest.h"
#include "startup/configuration.h"
#include "metrics/servermetrics.h"
#include "startup/logger.h"

namespace vistrel::http {

namespace {

constexpr const char* kUploadDone = "Upload completed successfully";
constexpr size_t kMaxPathLength = 1023;

// The client's file name without any folder part, so an upload can't leave the upload folder.
std::string base_name(const std::string& name) {
    size_t cut = name.find_last_of("/\\");
    return cut == std::string::npos ? name : name.substr(cut + 1);
}

MHD_Result refuse(UploadState& upload, int status, std::string answer) {
    upload.status = status;
    upload.answer = std::move(answer);
    return MHD_NO;
}

// First chunk of the "file" field: checks the name and opens a fresh file for it.
MHD_Result open_upload_file(UploadState& upload, const char* filename) {
    std::string name = filename != nullptr ? base_name(filename) : "";
    if (name.empty()) {
        LOG_WARNING("Missing 'filename' for multi-part request");
        return refuse(upload, 400,
                      session::message_document("Couldn't find filename, unable to start Analysis",
                                                "AnalyzeCapture"));
    }
    if (!capture::is_capture_file_name(name)) {
        LOG_WARNING("File format is not a capture file, impossible to analyze");
        return refuse(
            upload, 400,
            session::message_document("File format is not a capture file, impossible to analyze",
                                      "AnalyzeCapture"));
    }
    LOG_NORMAL("Correctly found upload filename: %s", name.c_str());
    const std::string& folder = configuration().analyze_capture_path;
    std::string path = folder + "/" + name;
    LOG_NORMAL("Trying to make new upload file at '%s'", path.c_str());
    if (path.size() > kMaxPathLength || !host::create_folder(folder)) {
        return refuse(upload, 500, "Error for upload destination path");
    }
    upload.path = path;
    if (host::file_exists(path)) {
        LOG_WARNING("File with the same name already exists, removing the old one: '%s'",
                    path.c_str());
        if (unlink(path.c_str()) != 0) {
            LOG_ERROR("Could not delete file: '%s' with Erc: %ld", path.c_str(),
                      static_cast<long>(errno));
        } else {
            LOG_WARNING("File deleted: '%s'", path.c_str());
        }
    }
    upload.file = std::fopen(path.c_str(), "ab");
    if (upload.file == nullptr) {
        // No answer of its own: the request ends as an unknown error.
        LOG_ERROR("Could not open upload file '%s' with Erc: %ld", path.c_str(),
                  static_cast<long>(errno));
        return MHD_NO;
    }
    LOG_NORMAL("Made new upload file at '%s'", path.c_str());
    return MHD_YES;
}

// Uploads in progress. Checked and counted in two steps, so the limit is approximate
// under simultaneous first calls; atomic only so that the count itself stays exact.
std::atomic<uint32_t> g_uploads{0};
constexpr uint32_t kMaxUploads = 2;
constexpr int64_t kUploadSpace = 2147483648LL;

}  // namespace

bool UploadState::close_file() {
    if (file == nullptr) return false;
    std::fclose(file);
    file = nullptr;
    return true;
}

bool UploadState::discard_file() {
    if (file == nullptr) return false;
    struct stat open_file {};
    struct stat named_file {};
    bool same = fstat(fileno(file), &open_file) == 0 && stat(path.c_str(), &named_file) == 0 &&
                open_file.st_dev == named_file.st_dev && open_file.st_ino == named_file.st_ino;
    close_file();
    if (same && unlink(path.c_str()) == 0)
        LOG_WARNING("Removed incomplete upload '%s'", path.c_str());
    return true;
}

MHD_Result upload_iterator(void* closure, enum MHD_ValueKind, const char* key, const char* filename,
                           const char*, const char*, const char* data, uint64_t offset,
                           size_t size) {
    UploadState& upload = *static_cast<UploadState*>(closure);
    upload.status = 200;
    const std::string field = key != nullptr ? key : "";
    if (field == "json") {
        // A long field arrives in pieces; the first one starts the text afresh.
        if (offset == 0) upload.json.clear();
        if (data != nullptr) upload.json.append(data, size);
        LOG_NORMAL("FOUND JSON FROM MULTIPART UPLOAD '%s'", upload.json.c_str());
        return MHD_YES;
    }
    if (field != "file") return refuse(upload, 400, "Missing key: file");
    if (upload.file == nullptr) {
        // A file field that comes back after the upload was closed is refused too.
        if (!upload.path.empty()) return refuse(upload, 400, "Missing key: file");
        if (open_upload_file(upload, filename) == MHD_NO) return MHD_NO;
    }
    if (size == 0) {
        upload.answer = kUploadDone;
        upload.status = 200;
        return MHD_YES;
    }
    if (std::fwrite(data, 1, size, upload.file) != size) {
        // The half-written file goes, so the request ends as an upload that was not made.
        LOG_ERROR("Could not write upload file '%s'", upload.path.c_str());
        upload.discard_file();
        return MHD_NO;
    }
    upload.answer = kUploadDone;
    upload.status = 200;
    return MHD_YES;
}

Reply handle_analyze_capture(session::VistrelSession& session, UploadState& upload, bool local) {
    int status = upload.status < 1 ? 500 : upload.status;
    // No good chunk came (no "file" field, or its file could not be made): never a success.
    if (!upload.answer) return {"Unknown error", 500};
    if (upload.path.empty()) {
        // Failures that already wrote a command reply keep it.
        if (!upload.answer->empty() && upload.answer->front() == '{')
            return {*upload.answer, status};
        return {session::message_document(*upload.answer, "/analyzeCapture"), status};
    }
    if (upload.json.empty()) {
        return {session::message_document("Missing JSON document. Unable to Start Analysis",
                                          "/analyzeCapture"),
                400};
    }
    if (status != 200) return {*upload.answer, status};
    LOG_NORMAL("Starting file analysis...");
    if (local) {
        LOG_NORMAL("LOCAL request '%s'  ", "/analyzeCapture");
    } else {
        LOG_NORMAL("REMOTE request '%s'  ", "/analyzeCapture");
    }
    if (!host::file_exists(upload.path)) {
        LOG_WARNING(
            "File at %s does not exist (it was not correctly uploaded), impossible to "
            "analyze",
            upload.path.c_str());
        return {"Unable to find upload file, sorry, try again later!", 500};
    }
    LOG_NORMAL("Starting capture analysis for %s", upload.path.c_str());
    session::StartRequest request;
    bool readable = false;
    try {
        readable = session::read_start_request(upload.json, false, request);
    } catch (const std::exception& error) {
        LOG_WARNING("Analysis request not readable: %s", error.what());
    }
    if (!readable) {
        return {session::message_document("Bad Json document for the given request", "Bad Json"),
                400};
    }
    return session.start_analysis(std::move(request), upload.path);
}

MHD_Result admit_upload(MHD_Connection* connection, ConnectionRecord* record, bool& refused) {
    refused = false;
    // The session's reply under the upload's command text: code 3 (busy) or 6 (disk).
    auto turn_away = [&](const char* message, uint32_t code, int status) {
        refused = true;
        metrics::count_request("POST", "/analyzeCapture", status, 0);
        delete record;
        return send_text(connection, session::message_document(message, "AnalyzeCapture", code),
                         status);
    };
    if (engine::WatchkeepProcess::is_running()) {
        LOG_WARNING("Watchkeep is already running");
        return turn_away("Vistrel is busy with another analysis, please retry later",
                         engine::kEngineAlreadyRunning, 503);
    }
    if (g_uploads > kMaxUploads - 1) {
        LOG_WARNING("Max number of uploaders reached");
        return turn_away("Vistrel is busy with another analysis, please retry later",
                         engine::kEngineAlreadyRunning, 503);
    }
    // Measured under the profile's own Vistrel folder, whatever upload folder is configured.
    if (host::free_space(host::profile_folder() + "/Documents/Vistrel/analyzed_captures") <
        kUploadSpace) {
        LOG_WARNING("Low disk space");
        return turn_away("Low disk space, (min 2GB)", engine::kEngineNotExecuted, 507);
    }
    LOG_NORMAL("Request for url: '%s'", "/analyzeCapture");
    record->post_processor =
        MHD_create_post_processor(connection, 512, upload_iterator, &record->upload);
    if (record->post_processor == nullptr) {
        delete record;
        return MHD_NO;
    }
    LOG_NORMAL("Iteratepost postprocessor made");
    ++g_uploads;
    metrics::uploads_in_flight().add(1);
    LOG_NORMAL("Number of uploading clients increased to: %u", g_uploads.load());
    return MHD_YES;
}

void end_upload(ConnectionRecord& record) {
    if (record.post_processor == nullptr) return;
    MHD_destroy_post_processor(record.post_processor);
    record.post_processor = nullptr;
    LOG_NORMAL("Destroyed postprocessor");
    --g_uploads;
    metrics::uploads_in_flight().add(-1);
    LOG_NORMAL("Number of uploading clients decreased to: %u", g_uploads.load());
}

}  // namespace vistrel::http
