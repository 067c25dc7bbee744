// The data directory and volumes of the event stream.
#pragma once

#include "platform/nt.h"

// The device form of the system root, e.g. \Device\HarddiskVolume2\Windows.
// Its buffer stays null until the data directory has been resolved.
extern UNICODE_STRING SystemRootDeviceString;
