#pragma once

#include "support/Namespace.h"

#include <Poco/Net/MulticastSocket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

/// More datagrams than a network should carry.
namespace Nubo::ServiceDiscovery::Testing {

/// Datagrams of many kinds in which a receiver finds nothing to act upon; the same ones every time.
std::vector<std::string> garbage(std::size_t count);

/// Datagrams with one offer each, of different services, or of different instances of one. Each offer has
/// its own port.
std::vector<std::string> offersOfServices(std::size_t count);
std::vector<std::string> offersOfInstances(std::size_t count);

/// Datagrams with one search each.
std::vector<std::string> searchesFor(const std::vector<std::string>& names);

/// About as large as a datagram can be, and full of searches for a service that nobody has.
std::string largeDatagram();

struct FloodPlan
{
    std::vector<std::string> datagrams;  ///< sent in turn, over and over
    std::size_t perSecond;
    std::chrono::milliseconds duration;
};

/// Sends to the discovery group at an even rate: every millisecond, a separate thread sends what is due.
class Flood
{
public:
    /// `source` is an address of the interface; the plan outlives the flood.
    Flood(const Namespace& network, const std::string& interface, const std::string& source,
          const FloodPlan& plan);
    /// Stops the flood, even if it is not over.
    ~Flood();

    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    bool isOver() const { return m_isOver; }
    std::size_t sent() const { return m_sent; }

private:
    void run();
    void sendUpTo(std::size_t due);

    const FloodPlan& m_plan;
    Poco::Net::MulticastSocket m_socket;
    std::vector<iovec> m_contents;
    std::vector<mmsghdr> m_messages;  ///< one per datagram
    std::atomic<std::size_t> m_sent{0};
    std::atomic<bool> m_isOver{false};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace Nubo::ServiceDiscovery::Testing
