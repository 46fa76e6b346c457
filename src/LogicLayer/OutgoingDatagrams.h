#pragma once

#include "DataLayer/SDService.h"

#include <Poco/MemoryPool.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Turns records into packets, and packs those into as few datagrams as possible. Not thread-safe.
class OutgoingDatagrams
{
public:
    /// Bytes in a block that belongs to this object, and their number.
    using Datagram = std::pair<char*, std::size_t>;
    using Datagrams = std::vector<Datagram>;

    /// A closed range of ports.
    struct InternalPortRange_t
    {
        std::uint32_t lowerBoundary;
        std::uint32_t upperBoundary;
    };

    /// Services on these ports are announced on interfaces with link-local addresses only.
    static constexpr InternalPortRange_t s_internalPortRange{47000, 49151};

    /// No datagram gets larger than `mtu` bytes.
    explicit OutgoingDatagrams(std::size_t mtu);
    ~OutgoingDatagrams();

    OutgoingDatagrams(const OutgoingDatagrams&) = delete;
    OutgoingDatagrams& operator=(const OutgoingDatagrams&) = delete;

    /// Whether the record can be sent as one of that type, tried by building its packet; the reason why not
    /// is in the log.
    bool isSendable(const SDService& service, SDService::Type::Type_t type) const;

    /// Adds an OFFER for a service of this unit, or a FIND for a wanted one. Throws Poco::Exception, and adds
    /// nothing, for a record that cannot be sent.
    void add(const SDService& service);

    /// What was added since the last reset, by where it goes.
    const Datagrams& externals() const { return m_bufferExternals; }
    const Datagrams& internals() const { return m_bufferInternals; }
    void resetBuffers();

    /// The ID of the next packet: 1 to 0xFFFE, then 1 again.
    std::uint16_t nextSessionID();

private:
    static const std::string& packetOf(const SDService& service);
    void storeServiceInBuffer(const SDService& service, Datagrams& buffers);

    const std::size_t m_mtu;
    Poco::MemoryPool m_bufferPool;
    Datagrams m_bufferExternals;
    Datagrams m_bufferInternals;
    std::uint16_t m_senderSessionID = 1;
};

}  // namespace Nubo::ServiceDiscovery
