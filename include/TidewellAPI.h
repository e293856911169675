/* Interface of the Tidewell device library as the server sees it.
 *
 * Every function returns a TidewellAPIRet (0 = success) unless said otherwise. Records are
 * plain C structures of fixed size; the sizes are part of the binary interface. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Basic types ---------------------------------------------------------------------- */

typedef int32_t TidewellAPIRet;
typedef uint64_t TidewellAPIHandle;
typedef void (*TidewellAPIDeviceCallback)(TidewellAPIHandle handle, void* context);

/* Wide strings are UTF-16 and zero-terminated. */
#ifdef __cplusplus
typedef char16_t TidewellAPIWChar;
#else
typedef uint16_t TidewellAPIWChar;
#endif

/* Result codes. */
#define TIDEWELLAPI_SUCCESS ((TidewellAPIRet)0)
#define TIDEWELLAPI_ERROR ((TidewellAPIRet)-1)
#define TIDEWELLAPI_ERROR_INVALID_HANDLE ((TidewellAPIRet)-2)
#define TIDEWELLAPI_ERROR_INVALID_ARGUMENT ((TidewellAPIRet)-3)
#define TIDEWELLAPI_ERROR_NOT_SUPPORTED ((TidewellAPIRet)-4)
#define TIDEWELLAPI_ERROR_NOT_INITIALIZED ((TidewellAPIRet)-5)
#define TIDEWELLAPI_ERROR_BUSY ((TidewellAPIRet)-6)
#define TIDEWELLAPI_ERROR_IO ((TidewellAPIRet)-7)
#define TIDEWELLAPI_ERROR_FILE_NOT_FOUND ((TidewellAPIRet)-8)
#define TIDEWELLAPI_ERROR_FIRMWARE_INVALID ((TidewellAPIRet)-9)
#define TIDEWELLAPI_ERROR_FIRMWARE_FAILED ((TidewellAPIRet)-10)
/* A firmware update is still running (TidewellAPIFirmwareUpdateGetProgress). */
#define TIDEWELLAPI_IN_PROGRESS ((TidewellAPIRet)-13)

/* ---- Enumerations (all 32-bit) -------------------------------------------------------- */

/* Device models. TidewellAPIDeviceTypeNames gives their display names. */
typedef enum {
    TidewellAPIDeviceType_Unknown = 0,
    TidewellAPIDeviceType_Lite = 1,
    TidewellAPIDeviceType_Pro = 2,
    TidewellAPIDeviceType_Pro10G = 3,
    TidewellAPIDeviceType_Inline = 4,
    TidewellAPIDeviceType_Force32 = 0x7fffffff
} TidewellAPIDeviceType;

/* Tri-state of device options: DontCare leaves the device's setting as it is. */
typedef enum {
    TidewellAPIState_Off = 0,
    TidewellAPIState_On = 1,
    TidewellAPIState_DontCare = 2,
    TidewellAPIState_Force32 = 0x7fffffff
} TidewellAPIState;

/* Where the device clock takes its time from. */
typedef enum {
    TidewellAPITimeSource_None = 0,
    TidewellAPITimeSource_Internal = 1,
    TidewellAPITimeSource_PPS = 2,
    TidewellAPITimeSource_GPS = 3,
    TidewellAPITimeSource_PTP = 4,
    TidewellAPITimeSource_SNTP = 5,
    TidewellAPITimeSource_Force32 = 0x7fffffff
} TidewellAPITimeSource;

/* The moment of a frame at which its timestamp is taken. */
typedef enum {
    TidewellAPITimestampMoment_StartOfFrame = 0,
    TidewellAPITimestampMoment_EndOfFrame = 1,
    TidewellAPITimestampMoment_DontCare = 2,
    TidewellAPITimestampMoment_Force32 = 0x7fffffff
} TidewellAPITimestampMoment;

typedef enum {
    TidewellAPIPortSpeed_Auto = 0,
    TidewellAPIPortSpeed_10M = 1,
    TidewellAPIPortSpeed_100M = 2,
    TidewellAPIPortSpeed_1G = 3,
    TidewellAPIPortSpeed_10G = 4,
    TidewellAPIPortSpeed_Disabled = 5,
    TidewellAPIPortSpeed_Force32 = 0x7fffffff
} TidewellAPIPortSpeed;

/* What a disk-dump capture writes. */
typedef enum {
    TidewellAPIDiskDumpMode_Packets = 0,    /* every frame to the capture files */
    TidewellAPIDiskDumpMode_Statistics = 1, /* counters only, no packet indexing */
    TidewellAPIDiskDumpMode_Force32 = 0x7fffffff
} TidewellAPIDiskDumpMode;

/* Capability bits (TidewellAPIGetDeviceCapabilities). */
#define TIDEWELLAPI_CAP_FEATURES 0x001u     /* features record, port speeds, link status */
#define TIDEWELLAPI_CAP_INLINE 0x002u       /* inline (pass-through) mode */
#define TIDEWELLAPI_CAP_SLICING 0x004u      /* frame slicing */
#define TIDEWELLAPI_CAP_TIMING 0x008u       /* timing status (clock, PPS, GPS) */
#define TIDEWELLAPI_CAP_GPS 0x010u          /* GPS receiver */
#define TIDEWELLAPI_CAP_STATISTICS_A 0x100u /* statistics of port A */
#define TIDEWELLAPI_CAP_STATISTICS_B 0x200u /* statistics of port B */

/* Display names of the models, in model order. The first entry is the default model. */
typedef struct {
    TidewellAPIDeviceType type;
    const char* name;
} TidewellAPIDeviceTypeName;

static const TidewellAPIDeviceTypeName TidewellAPIDeviceTypeNames[] = {
    {TidewellAPIDeviceType_Lite, "Tidewell Lite"},
    {TidewellAPIDeviceType_Pro, "Tidewell Pro"},
    {TidewellAPIDeviceType_Pro10G, "Tidewell Pro 10G"},
    {TidewellAPIDeviceType_Inline, "Tidewell Inline"},
};
#define TIDEWELLAPI_DEVICE_TYPE_COUNT \
    (sizeof(TidewellAPIDeviceTypeNames) / sizeof(TidewellAPIDeviceTypeNames[0]))
#define TIDEWELLAPI_UNKNOWN_DEVICE_NAME "Unknown"

/* ---- Records -------------------------------------------------------------------------- */

#define TIDEWELLAPI_MAC_LENGTH 6
#define TIDEWELLAPI_MAX_FILE_NAME 128
#define TIDEWELLAPI_MAX_FILE_EXTENSION 16
#define TIDEWELLAPI_MAX_PORTS 2

/* Firmware and hardware versions (32 + 32 bytes). */
typedef struct {
    uint32_t ApiVersion;
    uint32_t DriverVersion;
    uint32_t FirmwareVersion; /* the running firmware image ("swversion" in catalogues) */
    uint32_t HardwareVersion; /* board revision ("hwversion" in catalogues) */
    uint32_t FpgaVersion;
    uint32_t BootloaderVersion;
    uint32_t Reserved[2];
    char SerialNumber[32];
} TidewellAPIVersions;

/* Disk-dump status (56 bytes). CaptureRunning comes first. */
typedef struct {
    uint32_t CaptureRunning; /* non-zero while a disk-dump capture runs */
    uint32_t CurrentFileIndex;
    uint64_t FilesWritten;
    uint64_t PacketsWritten;
    uint64_t BytesWritten;
    uint64_t PacketsDropped;
    uint64_t StartTime; /* nanoseconds since the Unix epoch; 0 = never started */
    uint64_t FreeDiskSpace;
} TidewellAPIDiskDumpStatus;

/* Disk-dump configuration. CaptureFolder belongs to the caller; the library copies what it
 * needs during TidewellAPIDiskDumpSetConfig. Files are named
 * <FileName>_<YYYYmmdd_HHMMSS>_<NNNNN><FileExtension> in CaptureFolder. */
typedef struct {
    const TidewellAPIWChar* CaptureFolder;
    char FileName[TIDEWELLAPI_MAX_FILE_NAME];
    char FileExtension[TIDEWELLAPI_MAX_FILE_EXTENSION]; /* ".pcapng" */
    uint32_t CaptureTime;         /* seconds per file; 0 = one file for the whole capture */
    uint32_t MaxNrFiles;          /* files per capture; 0 = no limit */
    TidewellAPIState LoopCapture; /* On: after MaxNrFiles go on, replacing the oldest file */
    uint32_t KeepFiles;           /* non-zero: a loop capture keeps the files it rotates out */
    TidewellAPIDiskDumpMode Mode;
    uint32_t IndexTraffic; /* non-zero: the capture engine indexes this device's traffic */
} TidewellAPIDiskDumpConfig;

/* Device features (72 bytes). On/off fields are TidewellAPIState values. */
typedef struct {
    TidewellAPIState DisablePortA;
    TidewellAPIState DisablePortB;
    TidewellAPIState EnableTimestamps;
    TidewellAPIState ForcePPSGeneration;
    TidewellAPIState InlineMode;
    TidewellAPIState KeepCRC32Field;
    TidewellAPIState Loopback;
    TidewellAPIState PPSOutput;
    TidewellAPITimestampMoment PortATimestampMoment;
    TidewellAPITimestampMoment PortBTimestampMoment;
    TidewellAPIState Slicing;
    TidewellAPIState StatisticsOnly;
    TidewellAPIState SyncTimestamps;
    TidewellAPITimeSource TimeInitSource;
    TidewellAPIState TransmitCrcErrors;
    TidewellAPIState WaitForSync;
    uint16_t HWFirmwareId; /* firmware image (mode) the device runs; a change needs a restart */
    uint16_t SlicingLength;
    int32_t PPSCompensation; /* nanoseconds */
} TidewellAPIFeatures;

/* Port speeds (72 bytes). */
typedef struct {
    uint32_t PortCount;
    TidewellAPIPortSpeed Speed[8]; /* setting of each port; index 0 = port A */
    uint32_t SupportedSpeeds[8];   /* bit (1 << TidewellAPIPortSpeed) per supported speed */
    TidewellAPIState AutoNegotiation;
} TidewellAPIPortsSpeed;

/* Extra information (12 bytes). */
typedef struct {
    int32_t Temperature; /* degrees Celsius */
    uint32_t UptimeSeconds;
    uint32_t Flags;
} TidewellAPIDeviceExtraInfo;

/* Firmware images stored on the device. */
typedef struct {
    uint32_t Id; /* the HWFirmwareId that selects the image */
    uint32_t Version;
    char Description[56];
} TidewellAPIHwFirmwareDesc;

typedef struct {
    uint32_t Count;
    uint32_t ActiveId;
    TidewellAPIHwFirmwareDesc Images[4];
} TidewellAPIHwFirmwaresDesc;

/* Link status with the SFP module data (SFF-8472 pages A0h and A2h). */
typedef struct {
    TidewellAPIState LinkUp;
    TidewellAPIPortSpeed Speed;
    TidewellAPIState FullDuplex;
    uint32_t SfpPresent;
    uint8_t SfpA0[256];
    uint8_t SfpA2[256];
} TidewellAPIPortLinkStatus;

typedef struct {
    uint32_t PortCount;
    TidewellAPIPortLinkStatus Ports[TIDEWELLAPI_MAX_PORTS];
} TidewellAPILinkStatus;

typedef struct {
    uint64_t Packets;
    uint64_t Bytes;
    uint64_t CrcErrors;
    uint64_t Dropped;
    uint64_t Broadcast;
    uint64_t Multicast;
} TidewellAPIPortStatistics;

typedef struct {
    uint32_t PortCount;
    uint32_t Reserved;
    TidewellAPIPortStatistics Ports[TIDEWELLAPI_MAX_PORTS];
} TidewellAPIStatistics;

typedef struct {
    TidewellAPITimeSource Source;
    TidewellAPIState Synchronized;
    TidewellAPIState PPSPresent;
    TidewellAPIState GPSLocked;
    uint32_t Seconds;
    uint32_t Reserved;
    uint64_t Nanoseconds;
    int64_t OffsetNanoseconds; /* last measured offset to the time source */
} TidewellAPITimingStatus;

/* Time handed to TidewellAPISetTimingTime (16 bytes). */
typedef struct {
    TidewellAPITimeSource Source; /* TidewellAPITimeSource_SNTP = 5 */
    uint32_t Seconds;             /* since 1970-01-01 00:00:00 UTC */
    uint64_t Nanoseconds;         /* within the second */
} TidewellAPITimingTime;

/* ---- Functions ------------------------------------------------------------------------ */

/* Callbacks run on the library's own thread. Register them before TidewellAPIInitialize so
 * that devices present at start are announced. */
TidewellAPIRet TidewellAPIAddNewDeviceCallback(TidewellAPIDeviceCallback callback, void* context);
TidewellAPIRet TidewellAPIRemoveNewDeviceCallback(TidewellAPIDeviceCallback callback,
                                                  void* context);
TidewellAPIRet TidewellAPIAddDeviceGoneCallback(TidewellAPIDeviceCallback callback, void* context);
TidewellAPIRet TidewellAPIRemoveDeviceGoneCallback(TidewellAPIDeviceCallback callback,
                                                   void* context);
TidewellAPIRet TidewellAPIInitialize(void);
TidewellAPIRet TidewellAPIUninitialize(void);

TidewellAPIRet TidewellAPIGetDeviceType(TidewellAPIHandle handle, TidewellAPIDeviceType* type);
/* Returns the capability bits of a model (no status). */
uint32_t TidewellAPIGetDeviceCapabilities(TidewellAPIDeviceType type);
TidewellAPIRet TidewellAPIGetDeviceMAC(TidewellAPIHandle handle,
                                       uint8_t mac[TIDEWELLAPI_MAC_LENGTH]);
TidewellAPIRet TidewellAPIGetVersions(TidewellAPIHandle handle, TidewellAPIVersions* versions);

TidewellAPIRet TidewellAPIGetDeviceFeatures(TidewellAPIHandle handle,
                                            TidewellAPIFeatures* features);
TidewellAPIRet TidewellAPISetDeviceFeatures(TidewellAPIHandle handle,
                                            const TidewellAPIFeatures* features);
/* Makes the features set last the next power cycle. */
TidewellAPIRet TidewellAPISaveDeviceFeatures(TidewellAPIHandle handle);
TidewellAPIRet TidewellAPIGetDevicePortsSpeed(TidewellAPIHandle handle,
                                              TidewellAPIPortsSpeed* speeds);
TidewellAPIRet TidewellAPISetDevicePortsSpeed(TidewellAPIHandle handle,
                                              const TidewellAPIPortsSpeed* speeds);

TidewellAPIRet TidewellAPIDiskDumpGetStatus(TidewellAPIHandle handle,
                                            TidewellAPIDiskDumpStatus* status);
TidewellAPIRet TidewellAPIDiskDumpSetConfig(TidewellAPIHandle handle,
                                            const TidewellAPIDiskDumpConfig* config);
TidewellAPIRet TidewellAPIDiskDumpStart(TidewellAPIHandle handle);
TidewellAPIRet TidewellAPIDiskDumpStop(TidewellAPIHandle handle);

TidewellAPIRet TidewellAPIGetDeviceExtraInfo(TidewellAPIHandle handle,
                                             TidewellAPIDeviceExtraInfo* info);
TidewellAPIRet TidewellAPIGetHwFirmwaresDesc(TidewellAPIHandle handle,
                                             TidewellAPIHwFirmwaresDesc* desc);
TidewellAPIRet TidewellAPIGetLinkStatus(TidewellAPIHandle handle, TidewellAPILinkStatus* status);
TidewellAPIRet TidewellAPIGetStatistics(TidewellAPIHandle handle, TidewellAPIStatistics* stats);
TidewellAPIRet TidewellAPIGetTimingStatus(TidewellAPIHandle handle,
                                          TidewellAPITimingStatus* status);

/* The device goes away and is announced again when it is back. */
TidewellAPIRet TidewellAPIRestartDevice(TidewellAPIHandle handle);
TidewellAPIRet TidewellAPISetTimingTime(TidewellAPIHandle handle,
                                        const TidewellAPITimingTime* time);

/* Starts flashing the firmware file; poll the progress until it returns something other than
 * TIDEWELLAPI_IN_PROGRESS (0 = flashed). Progress is in percent. */
TidewellAPIRet TidewellAPIFirmwareUpdateStart(TidewellAPIHandle handle,
                                              const TidewellAPIWChar* file_path);
TidewellAPIRet TidewellAPIFirmwareUpdateGetProgress(TidewellAPIHandle handle, int32_t* progress);

#ifdef __cplusplus
}

static_assert(sizeof(TidewellAPIDeviceType) == 4);
static_assert(sizeof(TidewellAPIState) == 4);
static_assert(sizeof(TidewellAPITimeSource) == 4);
static_assert(sizeof(TidewellAPITimestampMoment) == 4);
static_assert(sizeof(TidewellAPIVersions) == 64);
static_assert(sizeof(TidewellAPIDiskDumpStatus) == 56);
static_assert(offsetof(TidewellAPIDiskDumpStatus, CaptureRunning) == 0);
static_assert(sizeof(TidewellAPIFeatures) == 72);
static_assert(sizeof(TidewellAPIPortsSpeed) == 72);
static_assert(sizeof(TidewellAPIDeviceExtraInfo) == 12);
static_assert(sizeof(TidewellAPITimingTime) == 16);
static_assert(offsetof(TidewellAPITimingTime, Seconds) == 4);
static_assert(offsetof(TidewellAPITimingTime, Nanoseconds) == 8);
#endif
