// Input: a packet, consisting of SOME/IP header and payload.

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "common/Payloads.h"
#include "common/RoundTrip.h"

#include <limits>
#include <memory>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

/// A packet. It counts as valid only if all of it can be written again.
struct Packet
{
    explicit Packet(std::size_t size) : packet(size) {}

    bool isAccepted() const
    {
        return isGood && packet.getSomeIP().isValid() && packet.getSomeIP_SD().isValid();
    }
    /// The header's length field may differ from the size of the payload; the library does not compare them.
    bool isValid() const
    {
        return isAccepted() && isWhole(packet.getSomeIP_SD()) && packet.getSize() == getSize();
    }
    std::size_t getSize() const { return SOME_IP::headerSize + packet.getSomeIP_SD().getSize(); }
    std::string toString(unsigned int indent) const { return packet.toString(indent); }

    friend std::ostream& operator<<(std::ostream& stream, const Packet& object)
    {
        return stream << object.packet;
    }
    friend std::istream& operator>>(std::istream& stream, Packet& object)
    {
        stream >> object.packet;
        object.isGood = stream.good();
        return stream;
    }

    SOME_IP_SD_Header packet;
    bool isGood = false;
};

void checkEntries(const SOME_IP_SD_Header& packet)
{
    constexpr std::size_t twoRuns = 30;
    const std::size_t count = packet.getNumOfEntries();
    require(count < std::numeric_limits<std::uint16_t>::max(), "a datagram has fewer entries than indices");
    for (std::size_t i = 0; i < count; ++i) {
        const auto data = packet.getEntryData(static_cast<std::uint16_t>(i));
        require(!data.entry.isNull(), "an entry of a valid packet comes with its data");
        require(data.options.size() <= twoRuns, "an entry has no more options than its runs can name");
        for (const SOME_IP_SD_Option::Ptr& option : data.options)
            require(!option.isNull(), "an entry's option is there");
    }
    require(packet.getEntryData(static_cast<std::uint16_t>(count)).entry.isNull(), "there is no entry more");
}

}  // namespace

void tryInput(std::string_view input)
{
    const auto received = checkRoundTrip(
        input, 0, [](std::string_view bytes) { return std::make_unique<Packet>(bytes.size()); });
    if (!received.object->isAccepted())
        return;

    const SOME_IP_SD_Header& packet = received.object->packet;
    require(packet.getSize() <= input.size(), "an accepted packet is there as a whole");
    checkArrays(packet.getSomeIP_SD(), input.size() - SOME_IP::headerSize);
    checkEntries(packet);
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
