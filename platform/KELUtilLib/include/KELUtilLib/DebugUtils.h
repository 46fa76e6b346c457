#pragma once

#include <KELUtilLib/Export.h>

#include <string>

/// Helps for those who debug a process of the platform.
namespace DebugUtils {

/// Names the calling thread as debuggers and `ps -L` show it. The kernel keeps the first 15 bytes.
/// `context` says where the thread was named; the Linux edition has no place to show it.
KEL_UTIL_EXPORT void setThreadName(const char* name, const char* context = "");

/// The bytes as lower-case hexadecimal text: groups of `groupSize` bytes (0 counts as 1) with a blank
/// between them, about 16 bytes a line, lines parted by a line end.
KEL_UTIL_EXPORT std::string HexDump(void const* data, unsigned short size, unsigned char groupSize);

}  // namespace DebugUtils
