// The public STACK WIN record, under the include path that the library's own code uses.

#pragma once

#include "google_breakpad/processor/windows_frame_info.h"
