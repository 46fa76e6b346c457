// Input: the SOME/IP header of a datagram.

#include "DataLayer/SOME_IP/SOME_IP.h"
#include "common/RoundTrip.h"

namespace Nubo::ServiceDiscovery::Fuzzing {

void tryInput(std::string_view input)
{
    const auto size = static_cast<std::streamsize>(input.size());
    SOME_IP_SD_Types::MetaData metaData(size);
    SOME_IP header(&metaData);
    Poco::MemoryInputStream stream(input.data(), size);
    stream >> header;
    require(!header.toString(1).empty(), "what was read can be shown in the log");
    if (!header.isValid())
        return;

    require(header.getSize() <= input.size(), "a valid header's message is there as a whole");
    require(metaData.remainingPacketLength == size - static_cast<std::streamsize>(SOME_IP::headerSize),
            "what is left is counted");
    require(written(header) == input.substr(0, SOME_IP::headerSize), "a header is written as it was read");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
