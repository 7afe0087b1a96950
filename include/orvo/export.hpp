// Marks the names the shared library exports (everything else is hidden).
#pragma once

#if defined(_WIN32)
#define ORVO_API
#else
#define ORVO_API __attribute__((visibility("default")))
#endif
