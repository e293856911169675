#pragma once

#include "TidewellAPI.h"

namespace vistrel::devices {

// Registers the two device callbacks, then initialises the device library.
TidewellAPIRet initialise();
// Removes the callbacks, then uninitialises the device library.
TidewellAPIRet uninitialise();

}  // namespace vistrel::devices
