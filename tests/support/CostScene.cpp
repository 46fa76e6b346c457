#include "support/CostScene.h"

#include "LogicLayer/SDMessageNotification.h"
#include "support/Descriptions.h"
#include "support/Packets.h"

#include <Poco/Delegate.h>

#include <algorithm>
#include <limits>
#include <utility>

#include <time.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// Makes the handler's run() return after this datagram.
class OnlyDatagram : public SDMessageNotification
{
public:
    OnlyDatagram(const Multicast::MulticastDataPtr& datagram, SDRequestHandler& handler)
        : SDMessageNotification(datagram)
        , m_handler(handler)
    {}
    ~OnlyDatagram() override { m_handler.shutdown(); }

private:
    SDRequestHandler& m_handler;
};

/// An endpoint of the other unit at that port.
std::string endpoint(std::size_t port)
{
    return "00 15 06 00"_bytes + fromHex(Packets::otherUnit) + "00 06"_bytes + Packets::bigEndian16(port);
}

std::string offerOf(const std::string& name, std::size_t port = 8080)
{
    return Packets::packet(Packets::Entry{}.bytes(), endpoint(port) + Packets::offerConfiguration(name));
}

std::string repeated(const std::string& bytes, std::size_t times)
{
    std::string all;
    all.reserve(bytes.size() * times);
    for (std::size_t i = 0; i < times; ++i)
        all += bytes;
    return all;
}

constexpr std::size_t packetOverhead = 28;  // header, flags and the lengths of the arrays

/// As many packets as fit, numbered from 0.
std::string packetsToFill(std::size_t size, const std::function<std::string(std::size_t number)>& make)
{
    std::string all;
    for (std::size_t i = 0;; ++i) {
        const std::string next = make(i);
        if (!all.empty() && all.size() + next.size() > size)
            return all;
        all += next;
    }
}

/// A packet with as many such entries as fit beside the options.
std::string entriesToFill(std::size_t size, const Packets::Entry& entry, const std::string& options)
{
    const std::string bytes = entry.bytes();
    const std::size_t taken = packetOverhead + options.size();
    const std::size_t room = size > taken ? size - taken : 0;
    return Packets::packet(repeated(bytes, room / bytes.size()), options);
}

/// A packet with one entry and as many such options as fit.
std::string optionsToFill(std::size_t size, const Packets::Entry& entry, const std::string& option)
{
    const std::size_t taken = packetOverhead + 16;
    const std::size_t room = size > taken ? size - taken : 0;
    return Packets::packet(entry.bytes(), repeated(option, room / option.size()));
}

double threadMicroseconds()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

}  // namespace

CostScene::CostScene(Known known)
{
    m_facade.ServiceListChanged += Poco::delegate(this, &CostScene::onServiceListChanged);
    m_handler.OfferService += Poco::delegate(&m_hub, &SDCommunicationHub::onOfferServiceReceived);
    m_handler.FindService += Poco::delegate(&m_hub, &SDCommunicationHub::onFindServiceReceived);
    announceOwn();
    fill(known);
    m_origin = Poco::Net::SocketAddress("[fd00::2]:30491");
    m_isBeginning = false;
}

CostScene::~CostScene()
{
    m_facade.ServiceListChanged -= Poco::delegate(this, &CostScene::onServiceListChanged);
}

void CostScene::fill(Known known)
{
    constexpr std::size_t few = 100;
    constexpr std::size_t half = SDStateMachine::largestWorkload / 2;
    switch (known) {
        case Known::Nothing:
            return;
        case Known::Few:
            return offer("fd00::2", 0, few);
        case Known::HalfFull:
            offer("fd00::2", 0, few);
            return offer("fd00::3", few, half - few);
        case Known::Full: {
            // A unit gets half of what is free: several fill it up.
            offer("fd00::2", 0, few);
            std::size_t first = few;
            for (std::size_t i = 3; first < SDStateMachine::largestWorkload; ++i) {
                const std::size_t share =
                    std::max<std::size_t>((SDStateMachine::largestWorkload - first) / 2, 1);
                offer("fd00::" + std::to_string(i), first, share);
                first += share;
            }
            return;
        }
        case Known::Instances:
            offer("fd00::2", 0, few);
            for (std::size_t i = 0; i < SDStateMachine::mostInstances; ++i) {
                // Each from a different sender, so that none exceeds its share.
                m_origin = Poco::Net::SocketAddress("[fd01::" + std::to_string(i % 100) + "]:30491");
                handle(offerOf("Media", i + 1));
            }
            return;
    }
}

void CostScene::offer(const std::string& sender, std::size_t first, std::size_t count)
{
    m_origin = Poco::Net::SocketAddress("[" + sender + "]:30491");
    for (std::size_t i = first; i < first + count; ++i)
        handle(offerOf("Known" + std::to_string(i)));
}

void CostScene::handle(std::string_view datagram)
{
    const Multicast::MulticastDataPtr copy =
        // cppcheck-suppress danglingTemporaryLifetime ; the bytes are copied
        new Multicast::MulticastReceiver::MulticastData(datagram.data(), datagram.size(), m_origin);
    m_queue.enqueueNotification(new OnlyDatagram(copy, m_handler));
    m_handler.run();
}

void CostScene::forget()
{
    const Packets::Entry stop{"01", "00 01 11", "00 01", "00 00 00"};
    for (const NuboServiceDescription& service : std::exchange(m_discovered, {})) {
        const std::string address(static_cast<const char*>(service.getIpAddress().addr()), 16);
        const std::string endpoint = "00 15 06 00"_bytes + address + '\0' +
                                     static_cast<char>(service.getL4Proto()) +
                                     Packets::bigEndian16(service.getPort());
        handle(Packets::packet(stop.bytes(), endpoint + Packets::offerConfiguration(service.getName())));
    }
    m_discovered.clear();
    announceOwn();
}

/// Adds the unit's services, again if necessary. Afterwards, no answer to a search waits.
void CostScene::announceOwn()
{
    for (unsigned short port = 1; port <= 10; ++port) {
        const std::string uuid = std::to_string(port);
        SDService::Ptr own = makeService("Own" + uuid, "fd00::1", port, uuid);
        m_hub.removeService(uuid);
        m_hub.addService(own);
    }
}

void CostScene::onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
{
    if (payload.getEventType() != ServiceDiscovery::EventType::SERVICE_DISCOVERED)
        return;
    payload.setLocalUuid(std::to_string(++m_uuids));
    if (!m_isBeginning)
        m_discovered.push_back(*payload.getServiceDescription());
}

double microsecondsToHandle(CostScene& scene, std::string_view datagram, int times)
{
    double least = std::numeric_limits<double>::max();
    for (int i = 0; i < times; ++i) {
        scene.forget();
        const double start = threadMicroseconds();
        scene.handle(datagram);
        least = std::min(least, threadMicroseconds() - start);
    }
    scene.forget();
    return least;
}

std::string knownOffers(std::size_t size)
{
    return packetsToFill(size, [](std::size_t i) { return offerOf("Known" + std::to_string(i % 100)); });
}

const std::vector<CostlyDatagram>& costlyDatagrams()
{
    using Packets::Entry;
    const auto configuration = [](std::size_t size, const std::string& text) {
        std::vector<std::string> texts{"l6proto=nubo", "otherserv=New", "txtvers=1", "version=1.0.0"};
        const std::size_t taken = 64;
        texts.resize(texts.size() + (size > taken ? size - taken : 0) / (text.size() + 1), text);
        return Packets::configurationOption(texts);
    };
    static const std::vector<CostlyDatagram> kinds{
        {"known offers", knownOffers},
        {"new offers, a packet each",
         [](std::size_t size) {
             return packetsToFill(size, [](std::size_t i) { return offerOf("New" + std::to_string(i)); });
         }},
        {"options of an unknown type",
         [](std::size_t size) { return optionsToFill(size, Entry{}, "00 01 77 00"_bytes); }},
        {"load balancing options",
         [](std::size_t size) { return optionsToFill(size, Entry{}, Packets::loadBalancingOption()); }},
        {"options that are refused",
         [](std::size_t size) {
             return optionsToFill(size, Entry{}, "00 09 04 00 c0 a8 00 02 00 00 1f 90"_bytes);
         }},
        {"configurations that are refused",
         [](std::size_t size) { return optionsToFill(size, Entry{}, "00 04 01 00 01 01 00"_bytes); }},
        {"entries of an unknown type", [](std::size_t size) { return entriesToFill(size, Entry{"77"}, ""); }},
        {"entries that refer to thirty missing options",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"01", "00 10 ff"}, "");
         }},
        {"searches that refer to thirty missing options",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"00", "00 10 ff"}, "");
         }},
        {"entries that refer to thirty options",
         [](std::size_t size) {
             std::string options = Packets::ipv6Option() + Packets::offerConfiguration("Media");
             options += repeated(Packets::loadBalancingOption(), 28);
             return entriesToFill(size, Entry{"01", "00 0f ff"}, options);
         }},
        {"entries with runs that are wrong",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"01", "05 05 00"}, "");
         }},
        {"offers without a version",
         [](std::size_t size) {
             return entriesToFill(size, Entry{},
                                  endpoint(8080) + Packets::configurationOption(
                                                       {"l6proto=nubo", "otherserv=Media", "txtvers=1"}));
         }},
        {"offers without a version and missing options",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"01", "00 02 2f"},
                                  endpoint(8080) + Packets::configurationOption(
                                                       {"l6proto=nubo", "otherserv=Media", "txtvers=1"}));
         }},
        {"searches with TTL 0",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"00", "00 00 00", "00 01", "00 00 00"}, "");
         }},
        {"known offers that share their options",
         [](std::size_t size) {
             return entriesToFill(size, Entry{}, endpoint(8080) + Packets::offerConfiguration("Known0"));
         }},
        {"searches for a service of the unit",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"00", "00 00 01", "ff ff"},
                                  Packets::configurationOption({"otherserv=Own1"}));
         }},
        {"searches for a known service",
         [](std::size_t size) {
             return entriesToFill(size, Entry{"00", "00 00 01", "ff ff"},
                                  Packets::configurationOption({"otherserv=Media"}));
         }},
        {"a configuration of many short keys",
         [=](std::size_t size) {
             return Packets::packet(Entry{}.bytes(), endpoint(8080) + configuration(size - 68, "a"));
         }},
        {"an offer of many versions",
         [=](std::size_t size) {
             return Packets::packet(Entry{}.bytes(), endpoint(8080) + configuration(size - 68, "version=1"));
         }},
        {"new instances that share many versions",
         [=](std::size_t size) {
             const std::string shared = configuration(size * 5 / 6, "version=1");
             const std::size_t taken = packetOverhead + shared.size();
             const std::size_t count = std::min<std::size_t>((size - std::min(size, taken)) / 40, 254);
             std::string entries;
             std::string options = shared;
             for (std::size_t i = 0; i < count; ++i) {
                 entries += "01"_bytes + static_cast<char>(i + 1) + '\0' +
                            fromHex("11 ff fe 00 01 01 00 00 78 00 00 00 00");
                 options += endpoint(i + 1);
             }
             return Packets::packet(entries, options);
         }},
        {"empty packets",
         [](std::size_t size) {
             const std::string empty = Packets::packet("", "");
             return repeated(empty, std::max<std::size_t>(size / empty.size(), 1));
         }},
        {"new instances of one name",
         [](std::size_t size) {
             return packetsToFill(size, [](std::size_t i) { return offerOf("Media", 10000 + i); });
         }},
    };
    return kinds;
}

}  // namespace Nubo::ServiceDiscovery::Testing
