// Input: a configuration option, as in the options array.

#include "common/Options.h"
#include "common/Pairs.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    if (!hasType(input, {OptionType::CONFIGURATION}))
        return;
    const auto option = checkOption<SOME_IP_SD_Option_Configuration>(input);
    if (option.isNull())
        return;

    std::string expected(input.substr(0, option->getSize()));
    expected.back() = 0;  // the library ignores the value of the terminator
    require(written(*option) == expected, "an option is written as it was read");
    checkPairs(*option);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
