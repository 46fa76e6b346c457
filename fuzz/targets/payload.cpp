// Input: the service-discovery payload of a packet, without the SOME/IP header.

#include "common/Payloads.h"
#include "common/RoundTrip.h"

#include <memory>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

/// A payload with the metadata of a packet. It counts as valid only if all of it can be written again.
struct Payload
{
    explicit Payload(std::size_t size) : metaData(static_cast<std::streamsize>(size)) {}

    bool isValid() const { return payload.isValid() && isWhole(payload); }
    std::size_t getSize() const { return payload.getSize(); }
    std::string toString(unsigned int indent) const { return payload.toString(indent); }

    friend std::ostream& operator<<(std::ostream& stream, const Payload& object)
    {
        return stream << object.payload;
    }
    friend std::istream& operator>>(std::istream& stream, Payload& object)
    {
        return stream >> object.payload;
    }

    SOME_IP_SD_Types::MetaData metaData;
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
};

}  // namespace

void tryInput(std::string_view input)
{
    const auto received = checkRoundTrip(
        input, 0, [](std::string_view bytes) { return std::make_unique<Payload>(bytes.size()); });
    checkArrays(received.object->payload, input.size());
    if (received.object->payload.isValid() && !hasWhiteSpace(input))
        require(received.consumed == received.object->getSize(), "a valid payload is read to its end");
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
