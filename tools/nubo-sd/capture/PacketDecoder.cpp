#include "capture/PacketDecoder.h"

#include "text/Text.h"
#include "unit/LogOutput.h"

#include <Poco/MemoryStream.h>

#include <algorithm>
#include <string_view>

#include <DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h>
#include <DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h>
#include <DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h>
#include <DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h>
#include <DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h>

namespace NuboSd {

using namespace Nubo::ServiceDiscovery;
using SOME_IP_SD_Types::OptionKeywords;

namespace {

// Offsets in a packet, and in its entries.
constexpr std::size_t sessionOffset = 10;
constexpr std::size_t reservedOffset = 17;
constexpr std::size_t entriesLengthOffset = 20;
constexpr std::size_t entriesOffset = 24;
constexpr std::size_t entrySize = 16;
constexpr std::size_t ttlOffset = 9;

std::uint32_t bigEndian(std::string_view bytes, std::size_t offset, std::size_t size)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size && offset + i < bytes.size(); ++i)
        value = value << 8 | static_cast<std::uint8_t>(bytes[offset + i]);
    return value;
}

bool hasWhiteSpace(std::string_view bytes)
{
    return bytes.find_first_of("\t\n\v\f\r ") != std::string_view::npos;
}

/// The codec skips white space in two places, and then reads the following fields out of step. Names the
/// place, if there is one.
std::string whiteSpaceIn(std::string_view packet)
{
    if (packet.size() < entriesOffset)
        return "";
    if (hasWhiteSpace(packet.substr(reservedOffset, 3)))
        return "; a reserved byte is white space, which cannot be received";
    const std::size_t entries = bigEndian(packet, entriesLengthOffset, 4) / entrySize;
    for (std::size_t i = 0; i < entries; ++i) {
        const std::size_t ttl = entriesOffset + i * entrySize + ttlOffset;
        if (ttl + 3 > packet.size())
            break;
        if (hasWhiteSpace(packet.substr(ttl, 3)))
            return "; entry #" + std::to_string(i + 1) + " has a TTL of " +
                   std::to_string(bigEndian(packet, ttl, 3)) +
                   " s, which has a byte that is white space and cannot be received";
    }
    return "";
}

SeenEntry malformed(std::string reason, std::string_view packet)
{
    SeenEntry entry;
    entry.kind = SeenEntry::malformed;
    entry.reason = std::move(reason);
    entry.session = static_cast<std::uint16_t>(bigEndian(packet, sessionOffset, 2));
    return entry;
}

std::string kindOf(const SOME_IP_SD_Entry& entry)
{
    const bool isStop = entry.getTTL() == 0;
    switch (entry.getType()) {
        case EntryType::FIND_SERVICE:
            return "find";
        case EntryType::OFFER_SERVICE:
            return isStop ? "stop-offer" : "offer";
        case EntryType::SUBSCRIBE:
            return isStop ? "stop-subscribe" : "subscribe";
        case EntryType::SUBSCRIBE_ACK:
            return isStop ? "subscribe-nack" : "subscribe-ack";
        case EntryType::INVALID:
            break;
    }
    return SeenEntry::malformed;
}

template <class Endpoint>
void takeEndpoint(const SOME_IP_SD_Option::Ptr& option, SeenEntry& entry)
{
    const Poco::SharedPtr<Endpoint> endpoint = option.template cast<Endpoint>();
    if (endpoint.isNull() || !entry.address.empty())
        return;
    entry.address = endpoint->getIP().toString();
    entry.port = endpoint->getPort();
    entry.protocol = protocolName(endpoint->getL4Protocol());
}

void takeConfiguration(const SOME_IP_SD_Option::Ptr& option, SeenEntry& entry)
{
    const SOME_IP_SD_Option_Configuration::Ptr configuration = option.cast<SOME_IP_SD_Option_Configuration>();
    if (configuration.isNull())
        return;
    std::vector<std::string> names;
    configuration->getAllValues(OptionKeywords::NuBo_Servicename, names);
    if (entry.name.empty() && !names.empty())
        entry.name = names.front();
    configuration->getAllValues(OptionKeywords::NuBo_Version, entry.versions);
    configuration->getAllValues(OptionKeywords::NuBo_Category, entry.categories);
}

SeenEntry toEntry(const SOME_IP_SD_Header::EntryData& data)
{
    SeenEntry entry;
    entry.kind = kindOf(*data.entry);
    entry.serviceID = data.entry->getServiceID();
    entry.instanceID = data.entry->getInstanceID();
    entry.majorVersion = data.entry->getMajorVersion();
    entry.ttl = data.entry->getTTL();
    const auto service = data.entry.cast<SOME_IP_SD_Entry_Service>();
    if (!service.isNull())
        entry.minorVersion = service->getMinorVersion();
    for (const SOME_IP_SD_Option::Ptr& option : data.options) {
        takeEndpoint<SOME_IP_SD_Option_IPv6>(option, entry);
        takeEndpoint<SOME_IP_SD_Option_IPv4>(option, entry);
        takeConfiguration(option, entry);
    }
    return entry;
}

/// Reads a packet; returns the first error that the codec reports.
std::string read(std::istream& stream, SOME_IP_SD_Header& packet)
{
    const ErrorCatcher catcher(ErrorCatcher::Others::Dropped);
    stream >> packet;
    return catcher.firstError();
}

void appendEntries(const SOME_IP_SD_Header& packet, std::string_view bytes, std::vector<SeenEntry>& result)
{
    for (std::size_t i = 0; i < packet.getNumOfEntries(); ++i) {
        const ErrorCatcher catcher(ErrorCatcher::Others::Dropped);
        const SOME_IP_SD_Header::EntryData data = packet.getEntryData(static_cast<std::uint16_t>(i));
        result.push_back(data.entry.isNull()
                             ? malformed("entry #" + std::to_string(i + 1) + " is invalid", bytes)
                             : toEntry(data));
        result.back().session = packet.getSomeIP().getSessionID();
    }
}

}  // namespace

const char* const SeenEntry::malformed = "malformed";
const std::vector<std::string> SeenEntry::kinds{"offer",          "stop-offer",     "find",
                                                "subscribe",      "stop-subscribe", "subscribe-ack",
                                                "subscribe-nack", "malformed"};

std::vector<SeenEntry> decode(const SeenDatagram& datagram)
{
    std::vector<SeenEntry> result;
    if (datagram.bytes.size() < datagram.length)
        return {malformed("only " + std::to_string(datagram.bytes.size()) + " of the datagram's " +
                              std::to_string(datagram.length) + " bytes are there",
                          datagram.bytes)};
    if (datagram.bytes.empty())
        return {malformed("the datagram is empty", "")};

    Poco::MemoryInputStream stream(datagram.bytes.data(),
                                   static_cast<std::streamsize>(datagram.bytes.size()));
    std::string_view left = datagram.bytes;
    // A zero byte where a packet would begin ends the datagram.
    while (!left.empty() && left.front() != 0) {
        SOME_IP_SD_Header packet(left.size());
        const std::string fault = read(stream, packet);
        const bool isGood = stream.good() && packet.getSomeIP().isValid() && packet.getSomeIP_SD().isValid();
        if (!isGood) {
            result.push_back(malformed(
                (fault.empty() ? std::string("the packet ends too early") : fault) + whiteSpaceIn(left),
                left));
            break;
        }
        if (!fault.empty())
            result.push_back(malformed(fault, left));
        appendEntries(packet, left, result);
        left.remove_prefix(packet.getSize());
    }
    return result;
}

}  // namespace NuboSd
