// Input: an IPv6 endpoint, multicast or SD endpoint option.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "common/Options.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    if (hasType(input, {OptionType::IP6_ENDPOINT, OptionType::IP6_MULTICAST, OptionType::IP6_SD_ENDPOINT}))
        checkEndpoint<SOME_IP_SD_Option_IPv6, IPv6Family::addressLength>(input);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
