// Input: a configuration string without its terminating zero byte.

#include "common/Pairs.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    if (input.size() > std::numeric_limits<std::uint16_t>::max())
        return;
    const auto length = static_cast<std::uint16_t>(input.size());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(input.data());
    require(prettyPrintConfigString(bytes, length).size() <= 4 * input.size() + 3,
            "a string is shown with one number per text");

    const auto terminated = std::make_unique<std::uint8_t[]>(input.size() + 1);
    std::copy(input.begin(), input.end(), terminated.get());
    const auto option = makeConfiguration(terminated.get(), length);
    if (!option)
        return;

    require(option->isValid(), "an option that could be made is valid");
    require(option->getConfigurationStringLength() == length, "an option keeps its string's length");
    require(std::equal(bytes, bytes + length, option->getConfigurationString()),
            "an option keeps its string");
    checkPairs(*option);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
