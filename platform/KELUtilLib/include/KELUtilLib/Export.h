#pragma once

/// Exports a symbol from libKELUtilLib.
#define KEL_UTIL_EXPORT __attribute__((visibility("default")))
