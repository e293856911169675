#pragma once

#include "TidewellAPI.h"

// The feature set of a device reset to its factory state: both ports on, timestamps on and taken
// at the start of each frame, everything else off. Shared by the server (restore) and the
// simulated devices, which start from it.
inline TidewellAPIFeatures tidewell_factory_features(uint16_t hw_firmware_id) {
    TidewellAPIFeatures features{};
    features.DisablePortA = TidewellAPIState_Off;
    features.DisablePortB = TidewellAPIState_Off;
    features.EnableTimestamps = TidewellAPIState_On;
    features.ForcePPSGeneration = TidewellAPIState_Off;
    features.InlineMode = TidewellAPIState_Off;
    features.KeepCRC32Field = TidewellAPIState_Off;
    features.Loopback = TidewellAPIState_Off;
    features.PPSOutput = TidewellAPIState_Off;
    features.PortATimestampMoment = TidewellAPITimestampMoment_StartOfFrame;
    features.PortBTimestampMoment = TidewellAPITimestampMoment_StartOfFrame;
    features.Slicing = TidewellAPIState_Off;
    features.StatisticsOnly = TidewellAPIState_Off;
    features.SyncTimestamps = TidewellAPIState_Off;
    features.TimeInitSource = TidewellAPITimeSource_Internal;
    features.TransmitCrcErrors = TidewellAPIState_Off;
    features.WaitForSync = TidewellAPIState_Off;
    features.HWFirmwareId = hw_firmware_id;
    features.SlicingLength = 0;
    features.PPSCompensation = 0;
    return features;
}
