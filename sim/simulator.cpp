// Placeholder simulator: no devices yet.
#include "TidewellAPI.h"

extern "C" {
TidewellAPIRet TidewellAPIAddNewDeviceCallback(TidewellAPIDeviceCallback, void*) { return 0; }
TidewellAPIRet TidewellAPIRemoveNewDeviceCallback(TidewellAPIDeviceCallback, void*) { return 0; }
TidewellAPIRet TidewellAPIAddDeviceGoneCallback(TidewellAPIDeviceCallback, void*) { return 0; }
TidewellAPIRet TidewellAPIRemoveDeviceGoneCallback(TidewellAPIDeviceCallback, void*) { return 0; }
TidewellAPIRet TidewellAPIInitialize(void) { return 0; }
TidewellAPIRet TidewellAPIUninitialize(void) { return 0; }
}
