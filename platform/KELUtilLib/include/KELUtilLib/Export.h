#pragma once

/// Marks what libKELUtilLib exports.
#define KEL_UTIL_EXPORT __attribute__((visibility("default")))
