// Input: an IPv4 endpoint, multicast or SD endpoint option.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "common/Options.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    if (hasType(input, {OptionType::IP4_ENDPOINT, OptionType::IP4_MULTICAST, OptionType::IP4_SD_ENDPOINT}))
        checkEndpoint<SOME_IP_SD_Option_IPv4, IPv4Family::addressLength>(input);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
