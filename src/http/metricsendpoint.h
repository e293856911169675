#pragma once

#include <microhttpd.h>

#include "devices/tidewellfirmwareupdater.h"
#include "http/routes.h"

namespace vistrel::http {

// GET /metrics: the process's metrics in the Prometheus text format, with the state of the
// engine, the devices, the capture volume and the index read at the time of the scrape.
MHD_Result handle_metrics(const GetRequest& request,
                          const devices::TidewellFirmwareUpdater& firmware_updater);

}  // namespace vistrel::http
