/* Interface of the Tidewell device library as the server sees it. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t TidewellAPIRet;
typedef uint64_t TidewellAPIHandle;
typedef void (*TidewellAPIDeviceCallback)(TidewellAPIHandle handle, void* context);

TidewellAPIRet TidewellAPIAddNewDeviceCallback(TidewellAPIDeviceCallback callback, void* context);
TidewellAPIRet TidewellAPIRemoveNewDeviceCallback(TidewellAPIDeviceCallback callback, void* context);
TidewellAPIRet TidewellAPIAddDeviceGoneCallback(TidewellAPIDeviceCallback callback, void* context);
TidewellAPIRet TidewellAPIRemoveDeviceGoneCallback(TidewellAPIDeviceCallback callback, void* context);
TidewellAPIRet TidewellAPIInitialize(void);
TidewellAPIRet TidewellAPIUninitialize(void);

#ifdef __cplusplus
}
#endif
