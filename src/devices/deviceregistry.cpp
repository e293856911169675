#include "devices/deviceregistry.h"

namespace vistrel::devices {

namespace {
void on_new_device(TidewellAPIHandle, void*) {}
void on_device_gone(TidewellAPIHandle, void*) {}
}  // namespace

TidewellAPIRet initialise() {
    TidewellAPIAddNewDeviceCallback(on_new_device, nullptr);
    TidewellAPIAddDeviceGoneCallback(on_device_gone, nullptr);
    return TidewellAPIInitialize();
}

TidewellAPIRet uninitialise() {
    TidewellAPIRemoveNewDeviceCallback(on_new_device, nullptr);
    TidewellAPIRemoveDeviceGoneCallback(on_device_gone, nullptr);
    return TidewellAPIUninitialize();
}

}  // namespace vistrel::devices
