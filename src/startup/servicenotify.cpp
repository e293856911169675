#include "startup/servicenotify.h"

#include <systemd/sd-daemon.h>

#include "startup/logger.h"

namespace vistrel {

void notify_ready() {
    if (sd_notify(0, "READY=1") > 0) LOG_NORMAL("Told the service manager the server is ready");
}

void notify_stopping() {
    sd_notify(0, "STOPPING=1");
}

}  // namespace vistrel
