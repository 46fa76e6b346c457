#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class NuboServiceDescription;

/// A reason why a description cannot be announced, for a person to read.
struct Fault
{
    /// The step of adding a service that fails because of it.
    enum class Step
    {
        Record,  ///< no record can be made of the description
        Packet   ///< no packet can be made of the record
    };

    /// "name", "versions", "categories", "address" or "protocol"; empty: the description as a whole.
    std::string field;
    std::optional<std::size_t> element;  ///< index in the field's list; none: the field as a whole
    std::string text;                    ///< the first line of the log about it, without its level word
    Step step = Step::Packet;
};

/// Every reason why the description cannot be announced, in the order of its fields; empty if it can. Writes
/// nothing to the log. An element of a list has at most one fault. Faulty elements do not count in the size
/// of the packet, which is not checked if the name is faulty.
std::vector<Fault> faultsOf(const NuboServiceDescription& description);

/// Text about a service without a name.
constexpr auto namelessFault = "SDCommunicationHub - a Service without a name cannot be put on the wire!";

/// Streams the text about a service whose packet exceeds the MTU. Refers to the name.
struct OversizeFault
{
    const std::string& name;
    std::size_t size;  ///< bytes of the packet
    std::size_t mtu;
};

std::ostream& operator<<(std::ostream& stream, const OversizeFault& fault);

}  // namespace Nubo::ServiceDiscovery
