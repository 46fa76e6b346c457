#include "soak/TurnedWire.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

// The definitions in this file replace those of the library: the engine's sender and receiver.

namespace Nubo::ServiceDiscovery {

namespace Testing {

namespace {

constexpr double doubled = 0.005;  // share of datagrams that are delivered twice
constexpr std::chrono::seconds longestHandling{30};

TurnedWire* theWire = nullptr;
TurnedWire::Port* nextPort = nullptr;

}  // namespace

/// Finds the port of a sender or receiver.
struct TurnedWireEnds
{
    static std::map<const void*, TurnedWire::Port*>& ports()
    {
        static std::map<const void*, TurnedWire::Port*> ports;
        return ports;
    }
    static void made(const void* end) { ports()[end] = nextPort; }
    static void destroyed(const void* end) { ports().erase(end); }
    static TurnedWire::Port& portOf(const void* end) { return *ports().at(end); }

    static void attach(TurnedWire::Port& port) { theWire->attach(port); }
    static void detach(TurnedWire::Port& port) { theWire->detach(port); }
};

TurnedWire::TurnedWire(std::uint32_t seed) : m_random(seed)
{
    theWire = this;
}

TurnedWire::~TurnedWire()
{
    theWire = nullptr;
}

void TurnedWire::plugInNext(Port& port)
{
    nextPort = &port;
}

void TurnedWire::attach(Port& port)
{
    m_ports.push_back(&port);
}

void TurnedWire::detach(Port& port)
{
    m_ports.erase(std::remove(m_ports.begin(), m_ports.end(), &port), m_ports.end());
}

bool TurnedWire::hasChance(double share)
{
    return std::uniform_real_distribution<double>(0, 1)(m_random) < share;
}

void TurnedWire::carry(const Port& from, const std::string& datagram)
{
    const auto packets = std::make_shared<const std::vector<SentPacket>>(packetsIn(datagram));
    onSent(from, *packets);
    if (!from.isPlugged)
        return;
    for (Port* to : m_ports) {
        if (to == &from || !to->isPlugged || !to->isListening || !to->isJoined)
            continue;
        if (hasChance(to->loss)) {
            ++m_counts.lost;
            continue;
        }
        deliver(from, *to, datagram, packets);
        if (hasChance(doubled)) {
            ++m_counts.doubled;
            deliver(from, *to, datagram, packets);
        }
    }
}

void TurnedWire::deliver(const Port& from, Port& to, const std::string& datagram, const Packets& packets)
{
    constexpr std::uint16_t port = 30491;
    ++m_counts.carried;
    Multicast::MulticastDataPtr data = new Multicast::MulticastReceiver::MulticastData(
        datagram.data(), datagram.size(), Poco::Net::SocketAddress(from.address, port));
    m_underWay.push_back({&to, data, packets});
    to.receiver->MulticastMessageReceived.notify(to.receiver, data);
}

void TurnedWire::settle()
{
    const auto end = std::chrono::steady_clock::now() + longestHandling;
    for (const UnderWay& one : m_underWay) {
        while (one.data.referenceCount() > 1) {  // the engine still holds it
            if (std::chrono::steady_clock::now() > end)
                throw std::runtime_error("a unit does not handle what it received");
            std::this_thread::yield();
        }
        onHandled(*one.to, *one.packets);
    }
    m_underWay.clear();
}

}  // namespace Testing

namespace Multicast {

using Testing::theWire;
using Ends = Testing::TurnedWireEnds;

MulticastSender::MulticastSender(const std::string& groupHost, std::uint16_t port) : m_group(groupHost, port)
{
    Ends::made(this);
}

MulticastSender::~MulticastSender()
{
    Ends::destroyed(this);
}

bool MulticastSender::init(const Poco::Net::IPAddress&)
{
    return true;
}

bool MulticastSender::sendMulticast(const MulticastData& packagesForAll, const MulticastData&)
{
    if (!Ends::portOf(this).isSending)
        return false;
    for (const auto& [bytes, size] : packagesForAll)
        theWire->carry(Ends::portOf(this), std::string(bytes, size));
    return true;
}

bool MulticastSender::isOwnOutgoingAddress(const Poco::Net::SocketAddress&) const
{
    return false;  // the wire does not return a sender's own datagrams
}

bool MulticastSender::isOwnAddress(const Poco::Net::IPAddress& address) const
{
    return address.toString() == Ends::portOf(this).address;
}

Poco::Net::IPAddress MulticastSender::unitAddress() const
{
    return Poco::Net::IPAddress(Ends::portOf(this).address);
}

std::optional<Poco::Net::IPAddress> MulticastSender::addressOn(const std::string&) const
{
    return std::nullopt;
}

Outcome MulticastSender::add(const std::string&, const std::string&, const InterfaceListing&, Attempt)
{
    Ends::portOf(this).isSending = true;
    return Outcome::InUse;
}

void MulticastSender::stopAwaiting(const std::string&, const Poco::Net::IPAddress&) {}

void MulticastSender::keepOnly(const std::set<std::string>&, const InterfaceListing&) {}

void MulticastSender::onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload&)
{
    Ends::portOf(this).isSending = false;
}

struct MulticastReceiver::Service
{};

MulticastReceiver::MulticastData::MulticastData(const char* bytes, std::size_t size,
                                                const Poco::Net::SocketAddress& sender)
    : buffer(bytes, size)
    , origin(sender)
{}

MulticastReceiver::MulticastReceiver(const OutgoingAddresses& parent, const std::string& groupHost,
                                     std::uint16_t port)
    : m_parent(parent)
    , m_discoveryAddress(groupHost, port)
{
    MulticastMessageReceived.enable();
    Ends::made(this);
    Ends::portOf(this).receiver = this;
    Ends::attach(Ends::portOf(this));
}

MulticastReceiver::~MulticastReceiver()
{
    Ends::detach(Ends::portOf(this));
    Ends::destroyed(this);
}

bool MulticastReceiver::start()
{
    Ends::portOf(this).isListening = true;
    return true;
}

void MulticastReceiver::stopFromWithin() noexcept {}

bool MulticastReceiver::hasWaiting() const
{
    return false;
}

void MulticastReceiver::stop()
{
    Ends::portOf(this).isListening = false;
    Ends::portOf(this).isJoined = false;
}

Outcome MulticastReceiver::add(const std::string&, const std::string&, const InterfaceListing&, Attempt)
{
    Ends::portOf(this).isJoined = true;
    return Outcome::InUse;
}

void MulticastReceiver::keepOnly(const std::set<std::string>&, const InterfaceListing&) {}

void MulticastReceiver::onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload&)
{
    Ends::portOf(this).isJoined = false;
}

}  // namespace Multicast

}  // namespace Nubo::ServiceDiscovery
