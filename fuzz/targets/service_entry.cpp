// Input: an entry that finds or offers a service.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "common/Entries.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    constexpr std::uint8_t all = 0xff;
    checkEntry<SOME_IP_SD_Entry_Service>(input, {EntryType::FIND_SERVICE, EntryType::OFFER_SERVICE}, all);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
