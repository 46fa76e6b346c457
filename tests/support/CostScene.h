#pragma once

#include "LogicLayer/SDCommunicationHub.h"
#include "LogicLayer/SDRequestHandler.h"
#include "ServiceDiscovery.h"
#include "support/Platform.h"

#include <Poco/Net/SocketAddress.h>
#include <Poco/NotificationQueue.h>

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

/// The cost of a datagram for the thread that handles it.
namespace Nubo::ServiceDiscovery::Testing {

/// The services that a unit knows when the datagram arrives.
enum class Known
{
    Nothing,
    Few,        ///< 100 services, "Known0" to "Known99"
    HalfFull,   ///< 65,536 services; those of another sender are taken in
    Full,       ///< 131,072 services
    Instances,  ///< the 100 and 4,096 instances of "Media"
};

/// A unit without network, threads and timers, which announces ten services: datagrams are handled on the
/// calling thread, and events of the registry cost nothing.
class CostScene
{
public:
    explicit CostScene(Known known);
    ~CostScene();

    CostScene(const CostScene&) = delete;
    CostScene& operator=(const CostScene&) = delete;

    /// Handles a datagram from that port of the other unit.
    void handle(std::string_view datagram);

    /// Forgets the services discovered since the scene began, and waiting answers.
    void forget();

    std::size_t discovered() const { return m_discovered.size(); }

private:
    void announceOwn();
    void fill(Known known);
    void offer(const std::string& sender, std::size_t first, std::size_t count);
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload);

    PlatformScope m_platformOfTheFacade;
    ServiceDiscovery m_facade;
    PlatformScope m_platform;
    SDCommunicationHub m_hub{m_facade};
    Poco::NotificationQueue m_queue;
    SDRequestHandler m_handler{m_queue};
    Poco::Net::SocketAddress m_origin{"[fd00::2]:30491"};
    bool m_isBeginning = true;
    std::size_t m_uuids = 0;
    std::vector<NuboServiceDescription> m_discovered;
};

/// Processor time of the calling thread to handle the datagram once, in microseconds: the least of several
/// times, each after forget().
double microsecondsToHandle(CostScene& scene, std::string_view datagram, int times = 7);

/// A kind of datagram that costs much for its size.
struct CostlyDatagram
{
    const char* name;
    std::function<std::string(std::size_t size)> make;  ///< of at most that size, in bytes

    friend void PrintTo(const CostlyDatagram& kind, std::ostream* stream) { *stream << kind.name; }
};

/// Offers of services that the scene knows, as many as fit.
std::string knownOffers(std::size_t size);

/// The costliest known kinds.
const std::vector<CostlyDatagram>& costlyDatagrams();

}  // namespace Nubo::ServiceDiscovery::Testing
