// Marks the modern API's classes and functions as exported from the shared library (everything else is hidden).
#pragma once

#ifndef ORVO_API
#if defined(_WIN32)
#define ORVO_API
#else
#define ORVO_API __attribute__((visibility("default")))
#endif
#endif
