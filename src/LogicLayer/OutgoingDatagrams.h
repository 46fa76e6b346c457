#pragma once

#include "DataLayer/SDService.h"

#include <Poco/MemoryPool.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Turns records into packets and packs these into as few datagrams as possible. Not thread-safe.
class OutgoingDatagrams
{
public:
    /// Pointer to a block that this object owns, and the number of bytes used in it.
    using Datagram = std::pair<char*, std::size_t>;
    using Datagrams = std::vector<Datagram>;

    /// A range of ports, both boundaries included.
    struct InternalPortRange_t
    {
        std::uint32_t lowerBoundary;
        std::uint32_t upperBoundary;
    };

    /// Services on these ports are announced only on interfaces with link-local addresses.
    static constexpr InternalPortRange_t s_internalPortRange{47000, 49151};

    /// Limits datagrams to `mtu` bytes.
    explicit OutgoingDatagrams(std::size_t mtu);
    ~OutgoingDatagrams();

    OutgoingDatagrams(const OutgoingDatagrams&) = delete;
    OutgoingDatagrams& operator=(const OutgoingDatagrams&) = delete;

    /// Checks, by building its packet, whether the record can be sent. Logs the reason when it cannot. The
    /// record keeps the packet for add().
    bool isSendable(const SDService& service) const;

    /// Adds an OFFER for a service of this unit, or a FIND for a wanted one. For a record that cannot be sent
    /// it adds nothing and throws Poco::Exception.
    void add(const SDService& service);

    /// The datagrams since the last reset: for every interface, and for link-local ones only. The blocks are
    /// valid until resetBuffers().
    const Datagrams& externals() const { return m_bufferExternals; }
    const Datagrams& internals() const { return m_bufferInternals; }
    void resetBuffers();

    /// Returns the session ID of the next packet: 1 to 0xFFFE, then 1 again.
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
