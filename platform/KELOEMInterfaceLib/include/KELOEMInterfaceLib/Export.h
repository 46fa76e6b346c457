#pragma once

/// Exports a symbol from libKELOEMInterfaceLib.
#define KEL_OEM_EXPORT __attribute__((visibility("default")))
