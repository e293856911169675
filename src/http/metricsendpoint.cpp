#include "http/metricsendpoint.h"

#include <unistd.h>

#include <mutex>
#include <string>

#include "database/captureindex.h"
#include "devices/deviceregistry.h"
#include "engine/watchkeepprocess.h"
#include "host/disk.h"
#include "host/processes.h"
#include "metrics/registry.h"
#include "metrics/servermetrics.h"
#include "startup/commandline.h"
#include "startup/configuration.h"

namespace vistrel::http {

namespace {

using metrics::Exposition;
using metrics::MetricType;

void gauge(Exposition& out, const std::string& name, const std::string& help, double value,
           const metrics::Labels& labels = {}) {
    out.family(name, help, MetricType::kGauge);
    out.sample(name, labels, value);
}

void write_engine(Exposition& out) {
    // Any process of that name counts, as for the server's own decisions.
    const std::optional<double> started =
        host::earliest_start_time(engine::WatchkeepProcess::kProcessName);
    gauge(out, "vistrel_engine_running", "1 while a capture engine process runs", started ? 1 : 0);
    gauge(out, "vistrel_engine_start_time_seconds",
          "Start of the oldest running capture engine, Unix time; 0 when none runs",
          started.value_or(0));
}

void write_devices(Exposition& out, const devices::TidewellFirmwareUpdater& firmware_updater) {
    const std::vector<devices::StatsThreadInfo> attached = devices::snapshot();
    gauge(out, "vistrel_devices_attached", "Capture devices attached",
          static_cast<double>(attached.size()));
    out.family("vistrel_device_capturing", "1 while the device runs a disk-dump capture",
               MetricType::kGauge);
    for (const devices::StatsThreadInfo& device : attached) {
        out.sample("vistrel_device_capturing", {{"mac", device.mac_text()}, {"name", device.name}},
                   device.capturing() ? 1 : 0);
    }
    gauge(out, "vistrel_firmware_updates_in_progress", "Firmware updates still flashing",
          static_cast<double>(firmware_updater.running_count()));
}

void write_server_state(Exposition& out, const devices::TidewellFirmwareUpdater& firmware_updater) {
    out.family("vistrel_build_info", "The server's version", MetricType::kGauge);
    out.sample("vistrel_build_info", {{"version", kVersion}}, 1);
    gauge(out, "vistrel_start_time_seconds", "Start of the server process, Unix time",
          host::process_start_time(getpid()).value_or(0));
    write_engine(out);
    write_devices(out, firmware_updater);
    const std::string& volume = configuration().capture_path;
    gauge(out, "vistrel_capture_volume_free_bytes",
          "Bytes available on the volume of the capture path; -1 when it cannot be measured",
          static_cast<double>(host::free_space(volume)));
    gauge(out, "vistrel_capture_volume_size_bytes",
          "Size of the volume of the capture path; -1 when it cannot be measured",
          static_cast<double>(host::total_space(volume)));
    gauge(out, "vistrel_index_rows", "Rows of the capture index",
          static_cast<double>(database::count_capture_files(false)));
}

}  // namespace

MHD_Result handle_metrics(const GetRequest& request,
                          const devices::TidewellFirmwareUpdater& firmware_updater) {
    static std::once_flag initialised;
    std::call_once(initialised, metrics::initialise_server_metrics);
    // The updater lives as long as the server that answers this request.
    metrics::Registry::instance().set_collector("server", [&firmware_updater](Exposition& out) {
        write_server_state(out, firmware_updater);
    });
    const std::string text = metrics::Registry::instance().render();
    MHD_Response* response = MHD_create_response_from_buffer(
        text.size(), const_cast<char*>(text.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, "Content-Type", Exposition::kContentType);
    MHD_Result result = MHD_queue_response(request.connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace vistrel::http
