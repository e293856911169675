#pragma once

// Tells a service manager (systemd, Type=notify) how the server is doing. Without one (no
// NOTIFY_SOCKET in the environment) these do nothing.
namespace vistrel {

// The listener is up and the stop condition is being waited for.
void notify_ready();
// Shut-down has begun.
void notify_stopping();

}  // namespace vistrel
