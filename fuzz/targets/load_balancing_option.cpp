// Input: a load-balancing option.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "common/Options.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    if (!hasType(input, {OptionType::LOAD_BALANCING}))
        return;
    const auto option = checkOption<SOME_IP_SD_Option_LoadBalancing>(input);
    if (option.isNull())
        return;
    require(written(*option) == input.substr(0, option->getSize()), "an option is written as it was read");
    require(written(SOME_IP_SD_Option_LoadBalancing(option->getPriority(), option->getWeight())).substr(4) ==
                written(*option).substr(4),
            "an option made of the values of a received one has its bytes");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
