#include "support/Flood.h"

#include "support/Listener.h"
#include "support/Packets.h"

#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketAddress.h>

#include <algorithm>
#include <iterator>
#include <random>

#include <pthread.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr std::size_t fullSize = 1212;
constexpr std::size_t firstPort = 1024;

/// An offer of the other unit's service of that name and port.
std::string offerAt(const std::string& name, std::size_t port)
{
    const std::string endpoint =
        "00 15 06 00"_bytes + fromHex(Packets::otherUnit) + "00 06"_bytes + Packets::bigEndian16(port);
    return Packets::packet(Packets::Entry().bytes(), endpoint + Packets::offerConfiguration(name));
}

Poco::Net::MulticastSocket openSocket(const Namespace& network, const std::string& interface,
                                      const std::string& source)
{
    const InNamespace inside(network);
    Poco::Net::MulticastSocket socket(Poco::Net::SocketAddress(source, 0), false);
    socket.setInterface(Poco::Net::NetworkInterface::forName(interface, true));
    return socket;
}

}  // namespace

std::vector<std::string> garbage(std::size_t count)
{
    std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    const auto upTo = [&](std::size_t most) {
        return std::uniform_int_distribution<std::size_t>(0, most)(random);
    };
    const auto randomBytes = [&](std::size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(upTo(255));
        return bytes;
    };
    const std::string offer = Packets::offer("Garbage");
    constexpr std::size_t headerSize = 16;
    Packets::Entry unknown;
    unknown.type = "42";

    std::vector<std::string> result;
    result.reserve(count);
    while (result.size() < count) {
        switch (result.size() % 7) {
            case 0:
                result.push_back(randomBytes(1 + upTo(fullSize - 1)));
                break;
            case 1:  // truncated
                result.push_back(offer.substr(0, 1 + upTo(offer.size() - 2)));
                break;
            case 2:  // a good header before a bad payload
                result.push_back(offer.substr(0, headerSize) + randomBytes(offer.size() - headerSize));
                break;
            case 3:
                result.push_back(Packets::packet(unknown.bytes(), ""));
                break;
            case 4:
                result.emplace_back();
                break;
            case 5:  // an offer without what an offer needs
                result.push_back(Packets::packetWith("01", {Packets::optionOfUnknownType()}));
                break;
            default:  // padding
                result.emplace_back(1 + upTo(fullSize - 1), '\0');
                break;
        }
    }
    return result;
}

std::vector<std::string> offersOfServices(std::size_t count)
{
    std::vector<std::string> result;
    result.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        result.push_back(offerAt("Flood" + std::to_string(i), firstPort + i));
    return result;
}

std::vector<std::string> offersOfInstances(std::size_t count)
{
    std::vector<std::string> result;
    result.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        result.push_back(offerAt("Flood", firstPort + i));
    return result;
}

std::vector<std::string> searchesFor(const std::vector<std::string>& names)
{
    std::vector<std::string> result;
    std::transform(names.begin(), names.end(), std::back_inserter(result), Packets::find);
    return result;
}

std::string largeDatagram()
{
    constexpr std::size_t size = 60000;
    const std::string search = Packets::find("Nothing");
    std::string result;
    while (result.size() + search.size() <= size)
        result += search;
    return result;
}

Flood::Flood(const Namespace& network, const std::string& interface, const std::string& source,
             const FloodPlan& plan)
    : m_plan(plan)
    , m_socket(openSocket(network, interface, source))
    , m_contents(plan.datagrams.size())
    , m_messages(plan.datagrams.size())
    , m_thread([this] { run(); })
{}

Flood::~Flood()
{
    m_stop = true;
    m_thread.join();
}

void Flood::run()
{
    ::pthread_setname_np(::pthread_self(), "Flood");
    const Poco::Net::SocketAddress group(discoveryGroup, discoveryPort);
    for (std::size_t i = 0; i < m_messages.size(); ++i) {
        const std::string& datagram = m_plan.datagrams[i];
        m_contents[i] = {const_cast<char*>(datagram.data()), datagram.size()};
        msghdr& message = m_messages[i].msg_hdr;
        message.msg_name = const_cast<sockaddr*>(group.addr());
        message.msg_namelen = group.length();
        message.msg_iov = &m_contents[i];
        message.msg_iovlen = 1;
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + m_plan.duration;
    Clock::time_point next = begin;
    for (Clock::time_point now = begin; now < end && !m_stop; now = Clock::now()) {
        const std::chrono::duration<double> elapsed = now - begin;
        sendUpTo(static_cast<std::size_t>(elapsed.count() * static_cast<double>(m_plan.perSecond)));
        next += std::chrono::milliseconds(1);
        std::this_thread::sleep_until(next);
    }
    m_isOver = true;
}

void Flood::sendUpTo(std::size_t due)
{
    constexpr std::size_t mostAtOnce = 256;
    while (m_sent < due && !m_stop) {
        const std::size_t at = m_sent % m_messages.size();
        const auto count =
            static_cast<unsigned>(std::min({due - m_sent, m_messages.size() - at, mostAtOnce}));
        const int done = ::sendmmsg(m_socket.impl()->sockfd(), &m_messages[at], count, 0);
        if (done > 0)
            m_sent += static_cast<std::size_t>(done);
        else
            std::this_thread::yield();
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
