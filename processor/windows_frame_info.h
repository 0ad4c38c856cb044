// The STACK WIN record as hosts see it, under the name that the library's own code includes.

#pragma once

#include "google_breakpad/processor/windows_frame_info.h"
