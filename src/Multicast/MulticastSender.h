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
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SDCommunicationHub;

namespace Multicast {

/// Sends datagrams to the discovery group on every interface that the platform reports, from one socket an
/// interface. The datagrams carry a placeholder, the unit's address given to init(); with several
/// interfaces it is overwritten by the interface's own address before they go out there.
class MulticastSender
{
public:
    using MulticastPackage = std::pair<char*, std::size_t>;  ///< bytes of the caller, and their number
    using MulticastData = std::vector<MulticastPackage>;
    using AdjustmentOffsets = std::vector<std::uint64_t>;  ///< where in a package an address stands
    using AdjustmentData = std::vector<AdjustmentOffsets>;

    MulticastSender(SDCommunicationHub& parent, const std::string& groupHost, std::uint16_t port);
    /// Closes all sockets.
    virtual ~MulticastSender();

    MulticastSender(const MulticastSender&) = delete;
    MulticastSender& operator=(const MulticastSender&) = delete;

    /// Sets the placeholder, an IPv6 address. Without one nothing can be sent; false then. Not to be called
    /// while datagrams are being sent.
    bool init(const Poco::Net::IPAddress& placeholder);

    /// Size in bytes of the largest datagram that may be handed in. It is not checked here.
    static constexpr std::uint32_t getMTU() { return 1212; }

    /// Sends the first list on every interface and the second on those with a link-local address. True when
    /// every datagram went out everywhere; what fails is logged and does not keep the others from going
    /// out. The datagrams' addresses are overwritten in place and not restored. Takes no lock: it works on
    /// the interfaces as they were when it began. To be called by one thread at a time.
    ///
    /// An interface that does not take its datagrams at once is waited for, each time for 20 ms at most, and
    /// all of them together for less than 40 ms in any second; one that took none in such a time, not until
    /// it takes one again. Signals that the thread gets make no wait longer. What is not taken then is lost.
    /// The next such list begins there with the first datagram that was lost without a wait, so that a slow
    /// interface gets all of them in turn.
    bool sendMulticast(const MulticastData& packagesForAll, const MulticastData& packagesForInternal);

    /// Whether a datagram from that address was sent by this unit: from one of the sockets, or from one
    /// that was closed a moment ago. The scope is left out of the comparison: between two ports on one
    /// segment a datagram comes back with another scope than it left with.
    bool isOwnOutgoingAddress(const Poco::Net::SocketAddress& origin) const;

    /// Whether it is the placeholder, or the address of an interface that is in use; the scope is left out.
    bool isOwnAddress(const Poco::Net::IPAddress& address) const;
    /// The placeholder, with no scope; the wildcard before init().
    Poco::Net::IPAddress unitAddress() const;
    /// Grows with every change of these addresses.
    std::uint64_t addressChanges() const { return m_addressChanges; }

    /// The platform's reports. Open and close the interface's socket.
    ///
    /// An interface may not be usable yet: its address is not there, or is still being checked for duplicates
    /// (RFC 4862 section 5.4, takes a second or two), or the system has no descriptor left. Then the caller
    /// adds it again later.
    Outcome onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);
    void onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload);

    /// Opens the interface's socket unless that has been done. Throws nothing but std::bad_alloc.
    Outcome add(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                Attempt attempt);
    /// Leaves an interface out that cannot be used yet.
    void stopAwaiting(const std::string& name, const Poco::Net::IPAddress& address);
    /// Closes the socket of every interface that is not there any more under one of these names.
    void keepOnly(const std::set<std::string>& names, const InterfaceListing& listing);

protected:
    using SocketPtr = Poco::SharedPtr<Poco::Net::MulticastSocket>;

    /// What is sent on an interface in one go.
    enum class List : std::uint8_t
    {
        All,
        Internal
    };

    /// How an interface takes its datagrams.
    struct Pace
    {
        bool isStalled = false;                  ///< it took none after a whole wait, and none since
        bool isWaitedFor = true;                 ///< the datagram at hand may wait for room
        std::array<std::size_t, 2> firstLost{};  ///< of the last run of each list of several datagrams
    };

    /// Limits how long all interfaces together are waited for in any second.
    class WaitBudget
    {
    public:
        bool isLeft(const Poco::Clock& now);
        void spend(Poco::Clock::ClockDiff microseconds) { m_spent += microseconds; }

    private:
        Poco::Clock m_second{Poco::Clock::ClockVal{0}};  // its begin
        Poco::Clock::ClockDiff m_spent = 0;              // in it
    };

    struct InterfaceData_t
    {
        SocketPtr socketPtr;
        std::string ipAsByteStream;  ///< the interface's address, 16 bytes in network order
        bool isInternal;             ///< the address is link-local
        Poco::Net::IPAddress address;
        Poco::Net::SocketAddress localAddress;                  ///< of the socket
        std::shared_ptr<Pace> pace = std::make_shared<Pace>();  ///< the sending thread's
    };
    /// By interface index.
    using InterfaceContainer = std::map<Poco::Net::NetworkInterface, InterfaceData_t>;

    /// The state of sending one list on several interfaces, one after the other.
    struct SendData
    {
        SendData(const MulticastData& list, const std::string& placeholder);

        MulticastData packages;
        std::string ipToReplaceNext;  ///< what stands in the packages now
        std::string ipReplacement;
        AdjustmentData offsets;  ///< of each package; empty until its first adjustment
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
    /// Overwrites every occurrence of the old address with the new one, at the offsets if there are any,
    /// else wherever it stands, and notes the offsets.
    static bool adjustIPs(MulticastPackage& package, const std::string& oldIP, const std::string& newIP,
                          AdjustmentOffsets& offsets);
    bool transmit(const SocketPtr& socket, const MulticastPackage& package, bool isWaitedFor = true) const;

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
    std::shared_ptr<const InterfaceContainer> m_interfaces;  // replaced as a whole, read with atomic_load
    std::shared_ptr<const OwnAddresses> m_ownAddresses;      // likewise, those of the interfaces
    mutable std::mutex m_interfacesMutex;
    LocalAddresses m_localAddresses;
    std::vector<AwaitedInterface> m_awaited;
    std::atomic<bool> m_isAwaiting{false};  // whether there is any, without the mutex
    std::atomic<std::uint64_t> m_addressChanges{0};
    bool m_initialised = false;
    std::string m_ipToReplace;
    std::shared_ptr<const std::string> m_unitAddress;  // the same, for any thread; see m_interfaces
    mutable WaitBudget m_waitBudget;                   // the sending thread's
};

}  // namespace Multicast

}  // namespace Nubo::ServiceDiscovery
