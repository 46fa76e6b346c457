#pragma once

#include <cstdint>
#include <ios>
#include <map>
#include <set>
#include <string>
#include <utility>

/// The vocabulary of the wire format: identifiers, wildcards, keywords and enumerations. These values are
/// defined nowhere else.
namespace Nubo::ServiceDiscovery {

/// The key/value pairs of a configuration option: ordered by the keys' bytes, equal keys in the order of
/// insertion.
using ConfigurationPairs = std::multimap<std::string, std::string>;

namespace SOME_IP_Types {

/// Reserved and well-known values of the SOME/IP header.
struct HeaderValues
{
    static constexpr std::uint16_t ServiceID_Reserved = 0x0000;
    static constexpr std::uint16_t ServiceID_Reserved_LowerLimit = 0xFF00;
    static constexpr std::uint16_t ServiceID_Reserved_UpperLimit = 0xFF5F;
    static constexpr std::uint16_t ServiceID_SOMEIP_SD = 0xFFFF;
    static const std::set<std::uint16_t>& Reserved_ServiceIDs;

    static constexpr std::uint16_t MethodID_Reserved00 = 0x0000;
    static constexpr std::uint16_t MethodID_Reserved01 = 0x7FFF;
    static constexpr std::uint16_t MethodID_Reserved02 = 0x8000;
    static constexpr std::uint16_t MethodID_SOMEIP_SD_Msg = 0x8100;
    static constexpr std::uint16_t MethodID_Reserved03 = 0xFFFF;
    static const std::set<std::uint16_t>& Reserved_MethodIDs;
};

}  // namespace SOME_IP_Types

namespace SOME_IP_SD_Types {

/// Size of the largest packet that is sent, in bytes.
constexpr std::uint32_t largestPacket = 1212;

/// Wildcards and reserved values of entry fields.
struct EntryValues
{
    static constexpr std::uint16_t ServiceID_Any = 0xFFFF;
    /// Services that are not SOME/IP services use this ID; their configuration option names them.
    static constexpr std::uint16_t ServiceID_Non_SOMEIP_SD = 0xFFFE;
    static constexpr std::uint16_t InstanceID_Reserved = 0x0000;
    static constexpr std::uint16_t InstanceID_Any = 0xFFFF;
    static constexpr std::uint8_t MajorVersion_Any = 0xFF;
    static constexpr std::uint32_t MinorVersion_Any = 0xFFFFFFFF;
};

/// Keys and fixed values of the configuration option.
struct OptionKeywords
{
    static const std::string NonSOME_IP_ServiceName;
    static const std::string Hostname;
    static const std::string Instancename;
    static const std::string Servicename;
    static const std::string NuBo_RecordVersionKey;
    static const std::string NuBo_RecordVersionValue;
    static const std::string NuBo_ApplProtocolKey;
    static const std::string NuBo_ApplProtocolValue;
    /// Key of a web service's name: "otherserv", not "servicename".
    static const std::string NuBo_Servicename;
    static const std::string NuBo_Category;
    static const std::string NuBo_Version;
};

/// Type byte of an entry. A stop-offer is an OFFER_SERVICE with TTL 0.
struct EntryType
{
    enum Type_t : std::uint8_t
    {
        FIND_SERVICE = 0x00,
        OFFER_SERVICE = 0x01,
        SUBSCRIBE = 0x06,
        SUBSCRIBE_ACK = 0x07,
        INVALID = 0xFF
    };
};

/// Type byte of an option. NONE: an option of a type that the receiver does not know.
struct OptionType
{
    enum Type_t : std::uint8_t
    {
        NONE = 0x00,
        CONFIGURATION = 0x01,
        LOAD_BALANCING = 0x02,
        IP4_ENDPOINT = 0x04,
        IP6_ENDPOINT = 0x06,
        IP4_MULTICAST = 0x14,
        IP6_MULTICAST = 0x16,
        IP4_SD_ENDPOINT = 0x24,
        IP6_SD_ENDPOINT = 0x26
    };
};

/// Transport protocol of an endpoint: the IP protocol numbers.
struct OptionL4Protocol
{
    enum L4Protocol_t : std::uint8_t
    {
        NONE = 0x00,
        TCP = 0x06,
        UDP = 0x11
    };
};

/// Value of an option's length field: the bytes after the type byte, the reserved byte included.
struct OptionLength
{
    enum Length_t : std::uint16_t
    {
        MIN = 1,
        LOAD_BALANCING = 5,
        IP4 = 9,
        IP6 = 21
    };
};

/// Number of bytes of a packet that remain to be read. Owned by the packet; header and payload point to it.
struct MetaData
{
    MetaData() = default;
    explicit MetaData(std::streamsize length) : remainingPacketLength(length) {}

    std::streamsize remainingPacketLength = 0;
};

/// A run of options that an entry refers to: index of the first, number of options.
using OptionRun = std::pair<std::uint8_t, std::uint8_t>;

}  // namespace SOME_IP_SD_Types

using SOME_IP_SD_Types::EntryType;
using SOME_IP_SD_Types::OptionL4Protocol;
using SOME_IP_SD_Types::OptionType;

}  // namespace Nubo::ServiceDiscovery
