#include "support/FloodScene.h"

#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/Packets.h"
#include "support/Platform.h"
#include "support/Process.h"
#include "support/Waiting.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Channel.h>
#include <Poco/Delegate.h>
#include <Poco/FileChannel.h>
#include <Poco/Message.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/TemporaryFile.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;

namespace {

constexpr auto unitAddress = "fd00::1";
constexpr auto flooderAddress = "fd00::2";
constexpr auto neighbourAddress = "fd00::3";
constexpr auto observedAddress = "fd01::1";
constexpr auto observerAddress = "fd01::2";
constexpr auto neighbourPrefix = "Neighbour";

constexpr milliseconds additionInterval{200};
constexpr milliseconds offerInterval{50};  // of the neighbour
constexpr milliseconds patience{30000};

/// Resident memory of the process; with sanitizers, which use much memory themselves, its heap.
std::size_t memoryInUse()
{
    return isSanitized ? heapInUse() : residentMemory();
}

Poco::Net::MulticastSocket openSocket(const Namespace& network, const std::string& interface)
{
    constexpr int receiveBuffer = 4 * 1024 * 1024;
    const Poco::Timespan timeout(0, 100000);
    const InNamespace inside(network);
    Poco::Net::MulticastSocket socket(Poco::Net::SocketAddress::IPv6);
    socket.bind(Poco::Net::SocketAddress("::", discoveryPort), false);
    socket.joinGroup(Poco::Net::IPAddress(discoveryGroup),
                     Poco::Net::NetworkInterface::forName(interface, true));
    socket.setReceiveBufferSize(receiveBuffer);
    socket.setReceiveTimeout(timeout);
    socket.setOption(SOL_SOCKET, SO_TIMESTAMPNS, 1);
    return socket;
}

FloodClock::time_point stampOf(msghdr& message)
{
    const cmsghdr* part = CMSG_FIRSTHDR(&message);
    if (!part || part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_TIMESTAMPNS)
        throw std::runtime_error("a datagram without a stamp");
    timespec stamp{};
    std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
    return FloodClock::time_point(std::chrono::seconds(stamp.tv_sec) +
                                  std::chrono::nanoseconds(stamp.tv_nsec));
}

/// Counts the log lines, and passes them on to the next channel, if any.
class CountingChannel : public Poco::Channel
{
public:
    explicit CountingChannel(Poco::AutoPtr<Poco::Channel> next = nullptr) : m_next(std::move(next)) {}

    void log(const Poco::Message& message) override
    {
        static const std::string dropReport = "Warning: SDCommunicationHub - dropped ";
        const std::string& text = message.getText();
        if (text.compare(0, dropReport.size(), dropReport) == 0) {
            dropped += std::stoul(text.substr(dropReport.size()));
            ++dropWarnings;
        }
        else {
            ++others;
        }
        if (m_next)
            m_next->log(message);
    }

    std::atomic<std::size_t> dropped{0};
    std::atomic<std::size_t> dropWarnings{0};
    std::atomic<std::size_t> others{0};

private:
    Poco::AutoPtr<Poco::Channel> m_next;
};

}  // namespace

/// Records the arrival times of offers.
class FloodScene::Observer
{
public:
    using Arrivals = std::vector<FloodClock::time_point>;

    Observer(const Namespace& network, const std::string& interface)
        : m_socket(openSocket(network, interface))
        , m_thread([this] { run(); })
    {}
    ~Observer()
    {
        m_stop = true;
        m_thread.join();
    }

    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    /// Arrival times of the service's offers, in order.
    Arrivals arrivals(const std::string& name) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_arrivals.find(name);
        return found == m_arrivals.end() ? Arrivals() : found->second;
    }

    /// The same, with at least so many of them, or with one since then; as it is if that takes too long.
    Arrivals arrivals(const std::string& name, std::size_t atLeast) const
    {
        eventually([&] { return arrivals(name).size() >= atLeast; }, patience);
        return arrivals(name);
    }
    Arrivals arrivals(const std::string& name, FloodClock::time_point since) const
    {
        const auto isHeard = [&] {
            const Arrivals all = arrivals(name);
            return !all.empty() && all.back() >= since;
        };
        eventually(isHeard, patience);
        return arrivals(name);
    }

private:
    void run()
    {
        ::pthread_setname_np(::pthread_self(), "Observer");
        std::array<char, 65536> datagram{};
        alignas(cmsghdr) std::array<char, 256> control{};
        while (!m_stop) {
            iovec content{datagram.data(), datagram.size()};
            msghdr message{};
            message.msg_iov = &content;
            message.msg_iovlen = 1;
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            const ssize_t size = ::recvmsg(m_socket.impl()->sockfd(), &message, 0);
            if (size > 0)
                take({datagram.data(), static_cast<std::size_t>(size)}, stampOf(message));
        }
    }

    /// Each of the unit's offers contains the service's name once, preceded by the length of that text.
    void take(std::string_view datagram, FloodClock::time_point arrival)
    {
        constexpr std::string_view key = "otherserv=";
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (std::size_t at = 0; (at = datagram.find(key, at + 1)) != std::string_view::npos;) {
            const auto length = static_cast<unsigned char>(datagram[at - 1]);
            m_arrivals[std::string(datagram.substr(at + key.size(), length - key.size()))].push_back(arrival);
        }
    }

    Poco::Net::MulticastSocket m_socket;
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Arrivals> m_arrivals;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// The library with a registry that stores next to nothing, so that the memory used is the library's.
class FloodScene::Unit
{
public:
    Unit(const Namespace& network, LogTo log) : m_network(network), m_log(openLog(log))
    {
        const InNamespace inside(m_network);
        Logging::Log::Logger().setChannel(m_log);
        Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
        m_discovery.emplace();
        m_discovery->ServiceListChanged += Poco::delegate(this, &Unit::onServiceListChanged);
        m_platform.dispatcher().addInterface("eth0", unitAddress);
        m_platform.dispatcher().addInterface("eth1", observedAddress);
        if (!m_discovery->startup(Poco::Net::IPAddress(unitAddress)))
            throw std::runtime_error("the unit does not start");
    }
    ~Unit()
    {
        const InNamespace inside(m_network);
        m_discovery->shutdown();
        m_discovery->ServiceListChanged -= Poco::delegate(this, &Unit::onServiceListChanged);
        m_discovery.reset();
    }

    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    void add(const std::string& name) { m_discovery->addService(describe(name, unitAddress, 8080, name)); }

    CountingChannel& log() { return *m_log; }

    /// Number of services.
    std::size_t discovered() const { return m_discovered; }

    /// Time at which the first of the neighbour's services was discovered.
    std::optional<FloodClock::time_point> neighbourDiscovered() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_neighbourDiscovered;
    }

private:
    Poco::AutoPtr<CountingChannel> openLog(LogTo log)
    {
        if (log == LogTo::Nowhere)
            return new CountingChannel;
        m_logFile.emplace();
        return new CountingChannel(new Poco::FileChannel(m_logFile->path()));
    }

    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        if (payload.getEventType() != ServiceDiscovery::EventType::SERVICE_DISCOVERED)
            return;
        payload.setLocalUuid("uuid-" + std::to_string(++m_discovered));
        if (payload.getServiceDescription()->getName().rfind(neighbourPrefix, 0) != 0)
            return;
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_neighbourDiscovered)
            m_neighbourDiscovered = FloodClock::now();
    }

    const Namespace& m_network;
    std::optional<Poco::TemporaryFile> m_logFile;
    Poco::AutoPtr<CountingChannel> m_log;
    PlatformScope m_platform;
    std::optional<ServiceDiscovery> m_discovery;
    std::atomic<std::size_t> m_discovered{0};
    mutable std::mutex m_mutex;
    std::optional<FloodClock::time_point> m_neighbourDiscovered;
};

FloodScene::FloodScene(std::size_t standingServices, LogTo log)
{
    connect(m_unitNetwork, "eth0", m_flooderNetwork, "eth0");
    connect(m_unitNetwork, "eth1", m_observerNetwork, "eth0");
    m_unitNetwork.addAddress("eth0", std::string(unitAddress) + "/64");
    m_unitNetwork.addAddress("eth1", std::string(observedAddress) + "/64");
    m_flooderNetwork.addAddress("eth0", std::string(flooderAddress) + "/64");
    m_flooderNetwork.addAddress("eth0", std::string(neighbourAddress) + "/64");
    m_observerNetwork.addAddress("eth0", std::string(observerAddress) + "/64");
    m_observer = std::make_unique<Observer>(m_observerNetwork, "eth0");
    m_unit = std::make_unique<Unit>(m_unitNetwork, log);

    for (std::size_t i = 0; i < standingServices; ++i) {
        m_standing.push_back("Standing" + std::to_string(i));
        m_unit->add(m_standing.back());
    }
    constexpr std::size_t repetitions = 4;
    for (const std::string& name : m_standing) {
        if (m_observer->arrivals(name, repetitions + 1).size() <= repetitions)
            throw std::runtime_error(name + " is not announced");
    }
}

FloodScene::~FloodScene() = default;

FloodReport FloodScene::endure(const FloodPlan& plan)
{
    FloodReport report;
    const std::size_t lostBefore = lostDatagrams(m_unitNetwork);
    const ProcessorTimes timesBefore = processorTimes();
    report.memoryBefore = memoryInUse();

    const FloodClock::time_point begin = FloodClock::now();
    Flood flood(m_flooderNetwork, "eth0", flooderAddress, plan);
    const Additions additions = addUntilOver(flood, report);
    const FloodClock::time_point end = FloodClock::now();

    report.sent = flood.sent();
    report.length = end - begin;
    report.processorTime = processorTimes();
    for (const auto& [name, time] : timesBefore)
        report.processorTime[name] -= time;
    report.recovery = timeToRecover();
    report.memoryAfter = memoryInUse();
    report.memoryAtMost = std::max(report.memoryAtMost, report.memoryAfter);
    report.discovered = m_unit->discovered();
    judgeAdditions(additions, report);
    judgeStanding(begin, end, report);
    report.droppedByKernel = lostDatagrams(m_unitNetwork) - lostBefore;
    report.droppedByUnit = m_unit->log().dropped;
    report.dropWarnings = m_unit->log().dropWarnings;
    report.otherComplaints = m_unit->log().others;
    return report;
}

/// Returns the time at which each was about to be added, by name.
FloodScene::Additions FloodScene::addUntilOver(const Flood& flood, FloodReport& report)
{
    constexpr milliseconds glanceInterval{5};
    Additions additions;
    FloodClock::time_point next = FloodClock::now();
    while (!flood.isOver()) {
        const FloodClock::time_point now = FloodClock::now();
        if (now >= next) {
            const std::string name = "Added" + std::to_string(additions.size());
            additions.emplace(name, now);
            m_unit->add(name);
            report.longestCall = std::max<Milliseconds>(report.longestCall, FloodClock::now() - now);
            next = now + additionInterval;
        }
        report.memoryAtMost = std::max(report.memoryAtMost, memoryInUse());
        std::this_thread::sleep_for(glanceInterval);
    }
    return additions;
}

/// The neighbour offers one service after the other, each once, until one is discovered.
Milliseconds FloodScene::timeToRecover()
{
    Speaker neighbour(m_flooderNetwork, "eth0", neighbourAddress);
    const FloodClock::time_point begin = FloodClock::now();
    const auto isDiscovered = [&] { return m_unit->neighbourDiscovered().has_value(); };
    for (int number = 0; FloodClock::now() < begin + patience; ++number) {
        neighbour.send(Packets::offer(neighbourPrefix + std::to_string(number)));
        if (eventually(isDiscovered, offerInterval))
            break;
    }
    return m_unit->neighbourDiscovered().value_or(FloodClock::now()) - begin;
}

void FloodScene::judgeAdditions(const Additions& additions, FloodReport& report) const
{
    report.added = additions.size();
    for (const auto& [name, call] : additions) {
        const Observer::Arrivals arrivals = m_observer->arrivals(name, 1);
        if (arrivals.empty())
            continue;
        ++report.announced;
        report.latestFirstOffer = std::max<Milliseconds>(report.latestFirstOffer, arrivals.front() - call);
    }
}

void FloodScene::judgeStanding(FloodClock::time_point begin, FloodClock::time_point end,
                               FloodReport& report) const
{
    for (const std::string& name : m_standing) {
        const Observer::Arrivals arrivals = m_observer->arrivals(name, end);
        for (std::size_t i = 1; i < arrivals.size(); ++i) {
            const bool isDuringTheFlood = arrivals[i] >= begin && arrivals[i - 1] <= end;
            if (!isDuringTheFlood)
                continue;
            ++report.offers;
            report.longestGap = std::max<Milliseconds>(report.longestGap, arrivals[i] - arrivals[i - 1]);
        }
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
