#pragma once

/// Marks what libKELServiceDiscoveryLib exports.
#define KEL_SD_EXPORT __attribute__((visibility("default")))
