// The data directory and volumes of the event stream.
#include "eventstream/datadir.h"

UNICODE_STRING SystemRootDeviceString;
