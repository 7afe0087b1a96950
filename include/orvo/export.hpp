// Marks the modern API's classes and functions as exported from the shared library.
#pragma once

#ifndef ORVO_API
#define ORVO_API __attribute__((visibility("default")))
#endif
