// Marks what the shared libraries export.
#pragma once

#if defined(__GNUC__)
#define CORVEL_EXPORT __attribute__((visibility("default")))
#else
#define CORVEL_EXPORT
#endif
