#pragma once

/// Exports a symbol from libKELServiceDiscoveryLib.
#define KEL_SD_EXPORT __attribute__((visibility("default")))
