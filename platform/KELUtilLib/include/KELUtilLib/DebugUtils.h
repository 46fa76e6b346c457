#pragma once

#include <KELUtilLib/Export.h>

#include <string>

/// Debugging aids.
namespace DebugUtils {

/// Sets the name of the calling thread for debuggers and `ps -L`. The kernel keeps the first 15 bytes.
/// `context` describes where the thread was named; the Linux edition ignores it.
KEL_UTIL_EXPORT void setThreadName(const char* name, const char* context = "");

/// Formats the bytes as lower-case hexadecimal text: groups of `groupSize` bytes (0 means 1) separated by a
/// space, about 16 bytes per line, lines separated by a newline.
KEL_UTIL_EXPORT std::string HexDump(void const* data, unsigned short size, unsigned char groupSize);

}  // namespace DebugUtils
