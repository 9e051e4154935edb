// Marks what the shared libraries export, and of an exported class what they keep to themselves.
#pragma once

#if defined(__GNUC__)
#define CORVEL_EXPORT __attribute__((visibility("default")))
#define CORVEL_LOCAL __attribute__((visibility("hidden")))
#else
#define CORVEL_EXPORT
#define CORVEL_LOCAL
#endif
