#pragma once

#include <microhttpd.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "common/reply.h"
#include "session/vistrelsession.h"

// POST /analyzeCapture: a multipart form with the capture file ("file") and the analysis
// request ("json", a start-capture document). libmicrohttpd's post processor hands each form
// chunk to upload_iterator; after the last chunk handle_analyze_capture starts the analysis.
namespace vistrel::http {

struct ConnectionRecord;

// The upload part of a connection record.
struct UploadState {
    UploadState() = default;
    ~UploadState() { close_file(); }
    UploadState(const UploadState&) = delete;
    UploadState& operator=(const UploadState&) = delete;

    // Closes the upload file; true when one was open.
    bool close_file();
    // Closes and removes an upload file that will never be complete; true when one was open.
    // A newer upload of the same name that replaced it is left alone.
    bool discard_file();

    FILE* file = nullptr;  // open in append-binary mode while chunks arrive
    std::string path;      // where the upload is stored
    std::string json;      // the "json" field
    int status = 200;      // HTTP status the iterator decided on
    // "Upload completed successfully" after each good chunk, or the failure reply.
    std::optional<std::string> answer;
};

// MHD_PostDataIterator; `closure` is the request's UploadState.
MHD_Result upload_iterator(void* closure, enum MHD_ValueKind kind, const char* key,
                           const char* filename, const char* content_type,
                           const char* transfer_encoding, const char* data, uint64_t offset,
                           size_t size);

// The first call of an upload: admission (no analysis running, at most two uploads at once,
// 2 GB free), then the post processor. MHD_NO closes the connection; on a refusal the reply
// is queued, `record` is freed and `refused` set.
MHD_Result admit_upload(MHD_Connection* connection, ConnectionRecord* record, bool& refused);
// When the request ends: frees the post processor and the upload's place.
void end_upload(ConnectionRecord& record);

// After the last chunk (the upload file closed): checks the upload and starts the analysis.
// `local` says whether the client is this machine.
Reply handle_analyze_capture(session::VistrelSession& session, UploadState& upload, bool local);

}  // namespace vistrel::http
