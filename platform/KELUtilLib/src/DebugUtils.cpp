#include <KELUtilLib/DebugUtils.h>

#include <algorithm>

#include <pthread.h>

namespace DebugUtils {

void setThreadName(const char* name, const char* /*context*/)
{
    constexpr std::size_t longestName = 15;
    ::pthread_setname_np(::pthread_self(), std::string(name).substr(0, longestName).c_str());
}

std::string HexDump(void const* data, unsigned short size, unsigned char groupSize)
{
    static constexpr char digits[] = "0123456789abcdef";
    const std::size_t group = std::max<std::size_t>(groupSize, 1);
    const std::size_t perLine = std::max<std::size_t>(16 / group, 1) * group;
    const auto* bytes = static_cast<const unsigned char*>(data);

    std::string text;
    text.reserve(std::size_t{size} * 3);
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0 && i % perLine == 0)
            text += '\n';
        else if (i != 0 && i % group == 0)
            text += ' ';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace DebugUtils
