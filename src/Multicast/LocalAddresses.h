#pragma once

#include <Poco/Clock.h>
#include <Poco/Net/SocketAddress.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

namespace Nubo::ServiceDiscovery::Multicast {

/// The local addresses of the sender's sockets, and those of closed ones for five seconds: a datagram from
/// them may still come back. An address is found at a cost that does not depend on how many there are: every
/// datagram that comes in is looked up, and a platform may open and close sockets without a pause.
///
/// Addresses are of IPv6. Their scope is left out: between two ports on one segment a datagram comes back
/// with another scope than it left with. Safe to use from any thread.
class LocalAddresses
{
public:
    /// Throws std::bad_alloc, and is unchanged then.
    void open(const Poco::Net::SocketAddress& address);
    void close(const Poco::Net::SocketAddress& address) noexcept;

    bool contains(const Poco::Net::SocketAddress& address) const noexcept;

    /// How many are kept, for tests.
    std::size_t size() const noexcept;

private:
    struct Endpoint
    {
        explicit Endpoint(const Poco::Net::SocketAddress& address) noexcept;
        bool operator==(const Endpoint& other) const { return port == other.port && host == other.host; }

        std::array<std::uint8_t, 16> host{};
        std::uint16_t port = 0;
    };
    struct PortHash
    {
        std::size_t operator()(const Endpoint& endpoint) const noexcept { return endpoint.port; }
    };
    struct Use
    {
        unsigned sockets = 0;                         ///< that are open
        Poco::Clock until{Poco::Clock::ClockVal{0}};  ///< when none is
    };

    void unsafe_sweep() noexcept;

    mutable std::mutex m_mutex;  // guards what follows; nothing is logged under it
    std::unordered_map<Endpoint, Use, PortHash> m_uses;
    std::size_t m_sweepAt = 0;  // so many
};

}  // namespace Nubo::ServiceDiscovery::Multicast
