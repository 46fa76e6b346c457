// Measures how many datagrams a unit processes, from the socket to the state machine, compared with a bare
// loop that only reads a socket. All services are known beforehand, so the unit receives repeated offers.
//
// usage: tests/support/in-namespace.sh build-bench/bin/receive_benchmark [SECONDS]

#include "ServiceDiscovery.h"
#include "support/Flood.h"
#include "support/Listener.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Platform.h"
#include "support/Process.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Channel.h>
#include <Poco/Delegate.h>
#include <Poco/Message.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Nubo::ServiceDiscovery;
using namespace Nubo::ServiceDiscovery::Testing;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr std::size_t services = 10003;       // a multiple of seven
constexpr std::size_t unlimited = 100000000;  // datagrams per second
const std::vector<std::string> unitThreads{"SdSockReact", "SdReqHdlr"};
const std::vector<std::string> loopThreads{"BareLoop"};

/// A receiver at this thread's end of the network pair.
class Receiver
{
public:
    virtual ~Receiver() = default;
    virtual const std::vector<std::string>& threads() const = 0;
    virtual std::size_t dropped() const = 0;
};

class UnitReceiver : public Receiver
{
public:
    UnitReceiver()
    {
        Logging::Log::Logger().setChannel(m_drops);
        Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
        m_platform.dispatcher().addInterface("eth0", "fd00::1");
        m_unit = std::make_unique<ServiceDiscovery>();
        m_unit->ServiceListChanged += Poco::delegate(this, &UnitReceiver::onServiceListChanged);
        m_unit->startup(Poco::Net::IPAddress("fd00::1"));
    }

    const std::vector<std::string>& threads() const override { return unitThreads; }
    std::size_t dropped() const override { return m_drops->dropped; }

private:
    /// Sums up the dropped datagrams that the unit reports in its log.
    struct DropCount : Poco::Channel
    {
        void log(const Poco::Message& message) override
        {
            const std::string report = "Warning: SDCommunicationHub - dropped ";
            if (message.getText().compare(0, report.size(), report) == 0)
                dropped += std::stoul(message.getText().substr(report.size()));
        }
        std::atomic<std::size_t> dropped{0};
    };

    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        payload.setLocalUuid(std::to_string(++m_discovered));
    }

    Poco::AutoPtr<DropCount> m_drops{new DropCount};
    PlatformScope m_platform;
    std::size_t m_discovered = 0;
    std::unique_ptr<ServiceDiscovery> m_unit;
};

class BareLoop : public Receiver
{
public:
    BareLoop()
    {
        constexpr int receiveBuffer = 4 * 1024 * 1024;
        m_socket.bind(Poco::Net::SocketAddress("::", discoveryPort), false);
        m_socket.joinGroup(Poco::Net::IPAddress(discoveryGroup),
                           Poco::Net::NetworkInterface::forName("eth0", true));
        m_socket.setReceiveBufferSize(receiveBuffer);
        m_socket.setReceiveTimeout(Poco::Timespan(0, 10000));
        m_thread = std::thread(&BareLoop::run, this);
    }
    ~BareLoop() override
    {
        m_stop = true;
        m_thread.join();
    }

    const std::vector<std::string>& threads() const override { return loopThreads; }
    std::size_t dropped() const override { return 0; }

private:
    void run()
    {
        ::pthread_setname_np(::pthread_self(), loopThreads.front().c_str());
        std::array<char, 65536> datagram{};
        while (!m_stop)
            static_cast<void>(::recv(m_socket.impl()->sockfd(), datagram.data(), datagram.size(), 0));
    }

    Poco::Net::MulticastSocket m_socket{Poco::Net::SocketAddress::IPv6};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// Returns the processor time of each of the receiver's threads, in seconds.
std::vector<double> processorTimesOf(const Receiver& receiver)
{
    ProcessorTimes times = processorTimes();
    std::vector<double> result;
    for (const std::string& name : receiver.threads())
        result.push_back(times[name].count() / 1000);
    return result;
}

double processorTimeOf(const Receiver& receiver)
{
    const std::vector<double> times = processorTimesOf(receiver);
    return std::accumulate(times.begin(), times.end(), 0.0);
}

/// Waits until the receiver is idle: until its threads use almost no processor time.
void waitForRest(const Receiver& receiver)
{
    constexpr double idling = 0.001;
    for (double last = -1, now = processorTimeOf(receiver); now - last > idling;) {
        std::this_thread::sleep_for(milliseconds(20));
        last = now;
        now = processorTimeOf(receiver);
    }
}

std::vector<std::string> datagrams(std::size_t offersInEach)
{
    const std::vector<std::string> offers = offersOfServices(services);
    std::vector<std::string> result;
    for (std::size_t i = 0; i + offersInEach <= offers.size(); i += offersInEach) {
        std::string datagram;
        for (std::size_t k = 0; k < offersInEach; ++k)
            datagram += offers[i + k];
        result.push_back(datagram);
    }
    return result;
}

/// Sends everything in the plan.
void send(const NetworkPair& network, const FloodPlan& plan)
{
    const Flood flood(network.there, "eth0", "fd00::2", plan);
    while (!flood.isOver())
        std::this_thread::sleep_for(milliseconds(1));
}

template <class Kind>
void run(const char* who, std::size_t offersInEach, std::size_t perSecond, seconds length)
{
    const NetworkPair network;
    network.link("eth0", "fd00::1", "fd00::2");
    const Kind receiver;
    const std::vector<std::string> contents = datagrams(offersInEach);
    // Makes all services known before the measurement begins.
    send(network, {contents, 2000, milliseconds(contents.size() / 2 + 500)});
    waitForRest(receiver);

    const std::size_t lostBefore = lostDatagrams(network.here);
    const std::size_t droppedBefore = receiver.dropped();
    const std::size_t memoryBefore = residentMemory();
    const std::vector<double> processorBefore = processorTimesOf(receiver);
    const FloodPlan plan{contents, perSecond, length};
    const auto start = Clock::now();
    std::optional<Flood> flood(std::in_place, network.there, "eth0", "fd00::2", plan);
    while (!flood->isOver() && Clock::now() - start < length)
        std::this_thread::sleep_for(milliseconds(1));
    const std::size_t sent = flood->sent();
    flood.reset();
    const std::chrono::duration<double> time = Clock::now() - start;
    waitForRest(receiver);

    const std::vector<double> processor = processorTimesOf(receiver);
    const std::size_t lost = lostDatagrams(network.here) - lostBefore;
    // The unit reports its drops once per second, on the next datagram.
    std::this_thread::sleep_for(milliseconds(1100));
    send(network, {contents, 100, milliseconds(100)});
    waitForRest(receiver);
    const std::size_t dropped = receiver.dropped() - droppedBefore;
    const auto read = static_cast<double>(sent - lost - dropped);
    const double growth = static_cast<double>(residentMemory()) - static_cast<double>(memoryBefore);
    std::printf("%-6s %7zu %10.0f %10.0f %10.0f %8.3f %% %8zu %8.1f", who, offersInEach,
                static_cast<double>(sent) / time.count(), read / time.count(),
                read / time.count() * static_cast<double>(offersInEach),
                100 * static_cast<double>(lost + dropped) / static_cast<double>(sent), dropped,
                growth / 1048576);
    for (std::size_t i = 0; i < processor.size(); ++i) {
        const double used = processor[i] - processorBefore[i];
        std::printf("   %s %.2f s, %.2f us", receiver.threads()[i].c_str(), used, 1e6 * used / read);
    }
    std::printf("\n");
}

/// Runs `work` in a separate process, so that its memory and threads belong to only one receiver.
bool apart(const std::function<void()>& work)
{
    static_cast<void>(std::fflush(stdout));
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            work();
            static_cast<void>(std::fflush(stdout));
            ::_exit(0);
        }
        catch (const std::exception& exception) {
            std::printf("%s\n", exception.what());
            static_cast<void>(std::fflush(stdout));
            ::_exit(1);
        }
    }
    int status = 1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const seconds length(argc > 1 ? std::stoi(argv[1]) : 5);
    std::printf("%-6s %7s %10s %10s %10s %10s %8s %8s   %s\n", "who", "offers", "sent/s", "read/s",
                "offers/s", "lost", "dropped", "MiB",
                "processor time by thread, and of it for each datagram");
    bool isGood = true;
    for (const std::size_t offersInEach : {1, 7}) {
        isGood = apart([&] { run<BareLoop>("loop", offersInEach, unlimited, length); }) && isGood;
        isGood = apart([&] { run<UnitReceiver>("unit", offersInEach, unlimited, length); }) && isGood;
        for (const std::size_t offers : {20000, 30000, 75000, 150000}) {
            const std::size_t perSecond = offers / offersInEach;
            isGood = apart([&] { run<UnitReceiver>("unit", offersInEach, perSecond, length); }) && isGood;
        }
    }
    return isGood ? 0 : 1;
}
