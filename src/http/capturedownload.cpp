#include "http/capturedownload.h"

#include <strings.h>

#include <memory>
#include <vector>

#include "capture/extractionjob.h"
#include "dashboard/dashboardfilter.h"
#include "dashboard/dashboardtime.h"
#include "database/captureindex.h"
#include "http/downloadmeter.h"
#include "http/pages.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::http {

namespace {

struct DashboardVariables {
    std::vector<dashboard::DashboardFilter> filters;
    std::vector<std::string> interfaces;
};

MHD_Result collect_variable(void* context, MHD_ValueKind, const char* key, const char* value) {
    auto& variables = *static_cast<DashboardVariables*>(context);
    if (key == nullptr) return MHD_YES;
    dashboard::collect_user_filter(key, value, variables.filters);
    dashboard::collect_interface(key, value, variables.interfaces);
    return MHD_YES;
}

// Bytes handed to the library per read callback.
constexpr size_t kBlockSize = 102400;

// A job's read result as the library's content reader answers it.
ssize_t reader_result(int64_t result) {
    if (result == capture::kEndOfStream) return MHD_CONTENT_READER_END_OF_STREAM;
    if (result == capture::kEndWithError) return MHD_CONTENT_READER_END_WITH_ERROR;
    return static_cast<ssize_t>(result);
}

// One stream: the job that produces it and the meter that counts what is handed out. The
// library owns it from the response's creation on and frees it after the last read.
struct Download {
    Download(std::unique_ptr<capture::ExtractionJob> extraction, const char* path)
        : job(std::move(extraction)), meter(path) {}

    std::unique_ptr<capture::ExtractionJob> job;
    DownloadMeter meter;
};

// The library's content reader over one of the job's two ways of producing the stream.
template <int64_t (capture::ExtractionJob::*Read)(uint8_t*, size_t)>
ssize_t read_block(void* cls, uint64_t, char* buffer, size_t maximum) {
    auto& download = *static_cast<Download*>(cls);
    const ssize_t result =
        reader_result(((*download.job).*Read)(reinterpret_cast<uint8_t*>(buffer), maximum));
    download.meter.sent(buffer, result);
    return result;
}

void free_download(void* cls) {
    delete static_cast<Download*>(cls);
}

MHD_Result queue_extract(MHD_Connection* connection, std::unique_ptr<capture::ExtractionJob> job) {
    const capture::CaptureQuery query = job->query();
    if (job->nothing_readable()) {
        // No selected file could be read: an empty answer that says so.
        MHD_Response* response =
            MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
        if (response == nullptr) return MHD_NO;
        MHD_Result result = MHD_queue_response(connection, 204, response);
        MHD_destroy_response(response);
        return result;
    }
    const bool filtered = job->filtered();
    // Counted as filtered whichever way the filter is applied (libpcap or tshark).
    const bool selecting = job->path() != capture::ExtractionJob::Path::kDirect;
    auto download = std::make_unique<Download>(std::move(job), selecting ? "filtered" : "direct");
    MHD_Response* response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, kBlockSize,
        filtered ? read_block<&capture::ExtractionJob::read_filtered>
                 : read_block<&capture::ExtractionJob::read_direct>,
        download.get(), free_download);
    if (response == nullptr) return MHD_NO;
    download.release();
    MHD_add_response_header(response, "Content-Type", "application/x-pcapng");
    MHD_add_response_header(response, "Content-Disposition", capture_disposition(query).c_str());
    MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace

bool bidirectional_flag(const std::optional<std::string>& value) {
    if (!value) return false;
    return strcasecmp(value->c_str(), "true") == 0 || *value == "1" ||
           strcasecmp(value->c_str(), "yes") == 0;
}

std::string capture_disposition(const capture::CaptureQuery& query) {
    return "attachment; filename=capture_" + std::to_string(query.start) + "_" +
           std::to_string(query.end) + ".pcapng";
}

MHD_Result handle_capture_download(const GetRequest& request) {
    MHD_Connection* connection = request.connection;
    DashboardVariables variables;
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &collect_variable, &variables);
    LOG_NORMAL("Found %u interface filters", static_cast<unsigned>(variables.interfaces.size()));
    LOG_NORMAL("Found %u user filters", static_cast<unsigned>(variables.filters.size()));

    const std::optional<std::string> from = request.arguments("from");
    const std::optional<std::string> to = request.arguments("to");
    // Bad arguments are plain text replies, like those of the other GET endpoints; only the
    // extraction's own failures are the styled pages the dashboard shows.
    if (!from || !to) {
        LOG_NORMAL("Bad request, timestamps not found");
        return send_text(connection, "Error : Missing timestamp 'from' or 'to'", 400);
    }
    LOG_NORMAL("Requesting pcap between: %s and %s", from->c_str(), to->c_str());

    capture::CaptureQuery query;
    query.start = dashboard::translate_timestamp(*from, true);
    query.end = dashboard::translate_timestamp(*to, false);
    if (query.start == 0 || query.end == 0) {
        LOG_NORMAL("Bad request, timestamps corrupted");
        return send_text(connection, "Error : Bad timestamps given", 400);
    }

    // A dashboard filter on the interface names the one source to read; otherwise the
    // interfaces the dashboard selected.
    const std::string interface = dashboard::interface_filter(variables.filters);
    if (!interface.empty()) {
        LOG_NORMAL("Got an interface (user) filter from Grafana, using as interface: '%s'",
                   interface.c_str());
        query.sources = {interface};
    } else {
        query.sources = variables.interfaces;
    }

    const bool bidirectional = bidirectional_flag(request.arguments("var-bidirectionalfilter"));
    const dashboard::TranslatedFilter translated = dashboard::translate_dashboard_filters(
        variables.filters, bidirectional, dashboard::rules_file_path());
    query.display_filter = translated.text;
    LOG_NORMAL("Translated Grafana filters to tshark like: '%s'", query.display_filter.c_str());

    capture::ExtractionOptions options;
    if (configuration().force_tshark) {
        options.tshark_reason = "force_tshark is set in the configuration";
    } else if (translated.has_raw_terms) {
        options.tshark_reason = "the filter holds a display filter of the user's own";
    }
    capture::Extraction extraction = capture::prepare_extraction(
        query, database::select_capture_files(query), std::move(options));
    if (!extraction.job) {
        return send_styled_error_page(connection, extraction.error_title, extraction.error_message,
                                      MHD_HTTP_OK);
    }
    return queue_extract(connection, std::move(extraction.job));
}

}  // namespace vistrel::http
