// Input: an entry that subscribes to an eventgroup or answers a subscription.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "common/Entries.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    constexpr std::uint8_t flagAndCounter = 0x8f;
    checkEntry<SOME_IP_SD_Entry_Eventgroup>(input, {EntryType::SUBSCRIBE, EntryType::SUBSCRIBE_ACK},
                                            flagAndCounter);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
