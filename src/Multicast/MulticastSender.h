#pragma once

#include "DataLayer/ServiceDiscovery_Types.h"
#include "Multicast/InterfaceAdmission.h"
#include "Multicast/LocalAddresses.h"

#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

#include <Poco/Clock.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/SharedPtr.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery::Multicast {

/// Sends datagrams to the discovery group on every interface that the platform reports, with one socket per
/// interface. The datagrams contain a placeholder, the unit's address given to init(). With several
/// interfaces, the sender overwrites it with the address of each interface before it sends there.
class MulticastSender
{
public:
    using MulticastPackage = std::pair<char*, std::size_t>;  ///< the caller's bytes, and their number
    using MulticastData = std::vector<MulticastPackage>;
    using AdjustmentOffsets =
        std::vector<std::uint64_t>;  ///< offsets of the addresses in a package, in bytes
    using AdjustmentData = std::vector<AdjustmentOffsets>;

    MulticastSender(const std::string& groupHost, std::uint16_t port);
    /// Closes all sockets.
    virtual ~MulticastSender();

    MulticastSender(const MulticastSender&) = delete;
    MulticastSender& operator=(const MulticastSender&) = delete;

    /// Sets the placeholder. Returns false when it is not an IPv6 address; then nothing can be sent. Must not
    /// be called while datagrams are being sent.
    bool init(const Poco::Net::IPAddress& placeholder);

    /// Size in bytes of the largest datagram that callers may pass. It is not checked here.
    static constexpr std::uint32_t getMTU() { return SOME_IP_SD_Types::largestPacket; }

    /// Sends the first list on every interface and the second on those with a link-local address. Logs each
    /// failure and continues with the next datagram; returns true when all were sent on all interfaces.
    /// Overwrites the addresses in the datagrams in place and does not restore them. Takes no lock: uses the
    /// interfaces present when it begins. Only one thread at a time may call it.
    ///
    /// If an interface's queue is full, waits for at most 20 ms per datagram, and for less than 40 ms per
    /// second in total, even if the thread receives signals. An interface that accepted nothing during such a
    /// wait is not waited for again until it accepts a datagram. Datagrams that it does not accept are lost.
    /// The next list of that kind starts with the first datagram that was lost there without a wait, so that
    /// a slow interface gets all of them in turn.
    bool sendMulticast(const MulticastData& packagesForAll, const MulticastData& packagesForInternal);

    /// Whether this unit sent a datagram with that source: from one of its sockets, or from one that was
    /// closed less than 5 s ago. Ignores the scope: if two of the unit's ports are on one segment, a datagram
    /// returns with a different scope. Thread-safe.
    bool isOwnOutgoingAddress(const Poco::Net::SocketAddress& origin) const;

    /// Whether the address is the placeholder or belongs to an interface in use, regardless of the scope.
    /// Thread-safe.
    bool isOwnAddress(const Poco::Net::IPAddress& address) const;
    /// Returns the address with which the interface of that name is used. Thread-safe.
    std::optional<Poco::Net::IPAddress> addressOn(const std::string& name) const;
    /// Returns the placeholder without a scope, or the wildcard before init().
    Poco::Net::IPAddress unitAddress() const;
    /// Increases with every change of these addresses.
    std::uint64_t addressChanges() const { return m_addressChanges; }

    /// Handle the platform's reports: open or close the interface's socket.
    ///
    /// Outcome::Pending means that the interface is not usable yet: the address is missing or still being
    /// checked for duplicates (RFC 4862 section 5.4, takes 1 to 2 s), or the system is out of descriptors.
    /// The caller adds the interface again later.
    Outcome onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);
    void onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload);

    /// Opens the interface's socket unless it is already open. Throws only std::bad_alloc.
    Outcome add(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                Attempt attempt);
    /// Forgets an interface that cannot be used yet.
    void stopAwaiting(const std::string& name, const Poco::Net::IPAddress& address);
    /// Closes the socket of every interface that is not there any more under one of these names.
    void keepOnly(const std::set<std::string>& names, const InterfaceListing& listing);

protected:
    using SocketPtr = Poco::SharedPtr<Poco::Net::MulticastSocket>;

    /// The kind of list that is sent on an interface.
    enum class List : std::uint8_t
    {
        All,
        Internal
    };

    /// How fast an interface accepts datagrams.
    struct Pace
    {
        bool isStalled = false;                  ///< it accepted none during a whole wait, and none since
        bool isWaitedFor = true;                 ///< the present datagram may wait for room
        std::array<std::size_t, 2> firstLost{};  ///< first lost index per kind, in the last list of several
    };

    /// Limits the time per second that the sender waits for all interfaces together.
    class WaitBudget
    {
    public:
        bool isLeft(const Poco::Clock& now);
        void spend(Poco::Clock::ClockDiff microseconds) { m_spent += microseconds; }

    private:
        Poco::Clock m_second{Poco::Clock::ClockVal{0}};  // start of the current second
        Poco::Clock::ClockDiff m_spent = 0;              // microseconds waited in it
    };

    struct InterfaceData_t
    {
        SocketPtr socketPtr;
        std::string ipAsByteStream;  ///< the interface's address, 16 bytes in network order
        bool isInternal;             ///< the address is link-local
        Poco::Net::IPAddress address;
        Poco::Net::SocketAddress localAddress;                  ///< local address of the socket
        std::shared_ptr<Pace> pace = std::make_shared<Pace>();  ///< used only by the sending thread
    };
    /// Sorted by interface index.
    using InterfaceContainer = std::map<Poco::Net::NetworkInterface, InterfaceData_t>;

    /// Progress of sending one list on several interfaces, one after the other.
    struct SendData
    {
        SendData(const MulticastData& list, const std::string& placeholder);

        MulticastData packages;
        std::string ipToReplaceNext;  ///< the address now in the packages
        std::string ipReplacement;
        AdjustmentData offsets;  ///< per package; empty until its first adjustment
    };

    /// An interface that cannot be used yet.
    struct AwaitedInterface
    {
        std::string name;
        Poco::Net::IPAddress address;
    };

    Outcome addInterface_byIP(const std::string& name, const std::string& ip);
    void removeInterface_byIP(const std::string& name, const std::string& ip);

    bool sendServices(const InterfaceData_t& interface, const MulticastData& packages,
                      List list = List::All) const;
    bool sendServices(const InterfaceData_t& interface, SendData& data, List list = List::All) const;
    /// Overwrites the old address with the new one: at the offsets if there are any, otherwise at every
    /// occurrence, whose offsets it stores. Returns false when the addresses differ in size.
    static bool adjustIPs(MulticastPackage& package, const std::string& oldIP, const std::string& newIP,
                          AdjustmentOffsets& offsets);
    bool transmit(const SocketPtr& socket, const MulticastPackage& package, bool isWaitedFor = true) const;

    mutable std::mutex m_interfacesMutex;

private:
    template <class Send>
    bool sendEach(const InterfaceData_t& interface, List list, std::size_t count, Send send) const;
    template <class Send>
    bool sendPaced(const InterfaceData_t& interface, Send send) const;
    bool sendAdjusted(const InterfaceData_t& interface, SendData& data, List list) const;
    std::shared_ptr<const InterfaceContainer> interfaces() const;
    void unsafe_replaceInterfaces(InterfaceContainer interfaces);
    Outcome unsafe_add(const AdmittedInterface& admitted, const std::string& ip,
                       const InterfaceListing& listing, Attempt attempt);
    void unsafe_open(const AdmittedInterface& admitted);
    void unsafe_await(const std::string& name, const Poco::Net::IPAddress& address);
    bool unsafe_stopAwaiting(const std::string& name, const Poco::Net::IPAddress& address);
    void unsafe_removeAll();

    /// Addresses as in InterfaceData_t::ipAsByteStream.
    using OwnAddresses = std::set<std::string, std::less<>>;

    const Poco::Net::SocketAddress m_group;
    std::shared_ptr<const InterfaceContainer> m_interfaces;  // immutable; replaced and read atomically
    std::shared_ptr<const OwnAddresses> m_ownAddresses;      // of the interfaces; likewise
    LocalAddresses m_localAddresses;
    std::vector<AwaitedInterface> m_awaited;
    std::atomic<bool> m_isAwaiting{false};  // m_awaited is not empty; readable without the mutex
    std::atomic<std::uint64_t> m_addressChanges{0};
    bool m_initialised = false;
    std::string m_ipToReplace;
    std::shared_ptr<const std::string> m_unitAddress;  // m_ipToReplace for other threads, accessed atomically
    mutable WaitBudget m_waitBudget;                   // used only by the sending thread
};

}  // namespace Nubo::ServiceDiscovery::Multicast
