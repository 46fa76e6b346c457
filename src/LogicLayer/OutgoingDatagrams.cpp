#include "LogicLayer/OutgoingDatagrams.h"

#include "DataLayer/Faults.h"
#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP/SOME_IP.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

#include <Poco/Exception.h>
#include <Poco/MemoryStream.h>

#include <algorithm>
#include <string>

namespace Nubo::ServiceDiscovery {

using Type = SDService::Type;

namespace {

constexpr int preallocatedBlocks = 5;
constexpr int unlimitedBlocks = 0;

SOME_IP_SD_Entry_Service::Ptr makeEntry(const SDService& service, EntryType::Type_t type)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = type;
    fields.serviceID = service.getServiceId();
    fields.instanceID = service.getInstanceId();
    fields.majorVersion = service.getMajorVersion();
    fields.ttl = service.getTTL();
    return new SOME_IP_SD_Entry_Service(fields, service.getMinorVersion());
}

SOME_IP_SD_Option::Ptr makeEndpoint(const NuboServiceDescription& description)
{
    const Poco::Net::IPAddress& ip = description.getIpAddress();
    // Uses the bytes: the text includes the scope, whose interface may no longer exist.
    if (ip.family() == Poco::Net::IPAddress::IPv6)
        return new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT,
                                          static_cast<const std::uint8_t*>(ip.addr()), description.getPort(),
                                          description.getL4Proto());
    return new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, ip.toString(), description.getPort(),
                                      description.getL4Proto());
}

void require(bool added)
{
    if (!added)
        throw Poco::InvalidArgumentException();
}

/// Builds the packet that offers a service or finds a wanted one. The caller sets the session ID.
SOME_IP_SD_Header createSDPacket(const SDService& service)
{
    try {
        SOME_IP_SD_Header packet(0);
        SOME_IP_SD_Option::Ptr configuration;
        std::uint8_t configurationIndex = 0;
        SOME_IP_SD_Entry_Service::Ptr entry;
        switch (service.getType()) {
            case Type::ANNOUNCED:
            case Type::DISCOVERED:
                entry = makeEntry(service, EntryType::OFFER_SERVICE);
                require(packet.addEntry(entry, false));
                entry->setFstOptionRun({0, 1});
                require(packet.addOption(makeEndpoint(service.getNuboDescription()), false));
                configurationIndex = 1;
                break;
            case Type::WANTED:
                entry = makeEntry(service, EntryType::FIND_SERVICE);
                require(packet.addEntry(entry, false));
                break;
            case Type::NONE:
            case Type::ANY:
                throw Poco::InvalidArgumentException();
        }
        // The configuration is always the entry's second run, even without a first one.
        entry->setSndOptionRun({configurationIndex, 1});
        require(packet.addOption(new SOME_IP_SD_Option_Configuration(service.getConfiguration()), false));
        return packet;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "Failed to create SD packet - " << exception.what();
        throw Poco::RuntimeException("Failed to create SD packet");
    }
}

std::string bytesOf(const SOME_IP_SD_Header& packet)
{
    std::string bytes(packet.getSize(), '\0');
    Poco::MemoryStreamBuf buffer(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    std::ostream stream(&buffer);  // cheaper than Poco::MemoryOutputStream, which initialises itself twice
    stream << packet;
    return bytes;
}

}  // namespace

OutgoingDatagrams::OutgoingDatagrams(std::size_t mtu)
    : m_mtu(mtu)
    , m_bufferPool(mtu, preallocatedBlocks, unlimitedBlocks)
{}

OutgoingDatagrams::~OutgoingDatagrams()
{
    resetBuffers();
}

bool OutgoingDatagrams::isSendable(const SDService& service) const
{
    const std::string& name = service.getNuboDescription().getName();
    if (name.empty()) {
        SD_LOG(Error) << namelessFault;
        return false;
    }
    try {
        const std::size_t size = packetOf(service).size();
        if (size <= m_mtu)
            return true;
        SD_LOG(Error) << OversizeFault{name, size, m_mtu};
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "SDCommunicationHub - Service \"" << name
                      << "\" cannot be put on the wire: " << exception.displayText();
    }
    return false;
}

void OutgoingDatagrams::add(const SDService& service)
{
    const std::uint32_t port = service.getNuboDescription().getPort();
    const bool isInternal =
        port >= s_internalPortRange.lowerBoundary && port <= s_internalPortRange.upperBoundary;
    storeServiceInBuffer(service, isInternal ? m_bufferInternals : m_bufferExternals);
}

std::uint16_t OutgoingDatagrams::nextSessionID()
{
    // 0 and 0xFFFF are never sent: IDs wrap from 0xFFFE to 1.
    if (m_senderSessionID == 0xFFFF)
        m_senderSessionID = 1;
    return m_senderSessionID++;
}

/// Returns the bytes of the record's packet; the caller overwrites the session ID. The bytes are cached in
/// the record, because the offer sent every second stays the same for years.
const std::string& OutgoingDatagrams::packetOf(const SDService& service)
{
    if (service.getPacket().empty())
        service.setPacket(bytesOf(createSDPacket(service)));
    return service.getPacket();
}

/// Appends the record's packet to the last datagram if it fits, otherwise to a new one.
void OutgoingDatagrams::storeServiceInBuffer(const SDService& service, Datagrams& buffers)
{
    const std::string& packet = packetOf(service);
    const std::uint16_t sessionID = nextSessionID();
    if (packet.size() > m_mtu)
        throw Poco::DataFormatException("SD packet exceeds the MTU");
    if (buffers.empty() || buffers.back().second + packet.size() > m_mtu)
        buffers.emplace_back(static_cast<char*>(m_bufferPool.get()), 0);
    auto& [block, size] = buffers.back();
    char* const begin = block + size;
    std::copy(packet.begin(), packet.end(), begin);
    SOME_IP::overwriteSessionID(begin, sessionID);
    size += packet.size();
}

void OutgoingDatagrams::resetBuffers()
{
    for (Datagrams* buffers : {&m_bufferExternals, &m_bufferInternals}) {
        for (const auto& datagram : *buffers)
            m_bufferPool.release(datagram.first);
        buffers->clear();
    }
}

}  // namespace Nubo::ServiceDiscovery
