// The headers of Windows' IP helper, in the order that they want.
#pragma once

#include "win32/winapi.h"

#include <winsock2.h>
#include <ws2ipdef.h>

#include <iphlpapi.h>
