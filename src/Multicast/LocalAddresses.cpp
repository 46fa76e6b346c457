#include "Multicast/LocalAddresses.h"

#include "DataLayer/SDClock.h"

#include <cstring>
#include <iterator>

#include <netinet/in.h>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::SocketAddress;

namespace {

/// In microseconds. Within this time a datagram that returns through another port arrives, if it does at all.
constexpr Poco::Clock::ClockDiff retirement = 5'000'000;
constexpr std::size_t fewest = 64;  // addresses that are worth a sweep

}  // namespace

/// An address of another family becomes one that no socket has, with port 0.
LocalAddresses::Endpoint::Endpoint(const SocketAddress& address) noexcept
{
    if (address.family() != SocketAddress::IPv6)
        return;
    sockaddr_in6 bytes{};
    std::memcpy(&bytes, address.addr(), sizeof bytes);
    std::memcpy(host.data(), &bytes.sin6_addr, host.size());
    port = ntohs(bytes.sin6_port);
}

void LocalAddresses::open(const SocketAddress& address)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_uses.size() >= m_sweepAt)
        unsafe_sweep();
    ++m_uses[Endpoint(address)].sockets;
}

void LocalAddresses::close(const SocketAddress& address) noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_uses.find(Endpoint(address));
    if (found == m_uses.end() || found->second.sockets == 0)
        return;
    --found->second.sockets;
    found->second.until = SDClock::now() + retirement;
}

bool LocalAddresses::contains(const SocketAddress& address) const noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_uses.find(Endpoint(address));
    return found != m_uses.end() && (found->second.sockets != 0 || SDClock::now() < found->second.until);
}

std::size_t LocalAddresses::size() const noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_uses.size();
}

/// Removes expired addresses. The next sweep happens at twice the number, so each address costs one step on
/// average.
void LocalAddresses::unsafe_sweep() noexcept
{
    const Poco::Clock now = SDClock::now();
    for (auto use = m_uses.begin(); use != m_uses.end();)
        use = use->second.sockets == 0 && use->second.until < now ? m_uses.erase(use) : std::next(use);
    m_sweepAt = 2 * m_uses.size() + fewest;
}

}  // namespace Nubo::ServiceDiscovery::Multicast
