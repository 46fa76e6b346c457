#pragma once

#include <Poco/Clock.h>
#include <Poco/Net/SocketAddress.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

namespace Nubo::ServiceDiscovery::Multicast {

/// The local addresses of the sender's sockets, and for five seconds those of closed ones, because datagrams
/// from them may still return. The cost of a lookup does not depend on their number: the receiver looks up
/// every datagram, and a platform may keep adding and removing interfaces.
///
/// Addresses are IPv6 addresses. Their scope is ignored: between two ports on one segment a datagram returns
/// with another scope. Thread-safe.
class LocalAddresses
{
public:
    /// Throws std::bad_alloc and then changes nothing.
    void open(const Poco::Net::SocketAddress& address);
    void close(const Poco::Net::SocketAddress& address) noexcept;

    bool contains(const Poco::Net::SocketAddress& address) const noexcept;

    /// Returns the number of kept addresses, for tests.
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
        unsigned sockets = 0;                         ///< open ones
        Poco::Clock until{Poco::Clock::ClockVal{0}};  ///< if no socket is open
    };

    void unsafe_sweep() noexcept;

    mutable std::mutex m_mutex;  // guards the members below
    std::unordered_map<Endpoint, Use, PortHash> m_uses;
    std::size_t m_sweepAt = 0;  // number of addresses
};

}  // namespace Nubo::ServiceDiscovery::Multicast
