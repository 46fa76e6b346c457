#pragma once

/// Marks what libKELOEMInterfaceLib exports.
#define KEL_OEM_EXPORT __attribute__((visibility("default")))
