#include "FaultyLife.h"

#include "support/Descriptions.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/Waiting.h"

#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <system_error>

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

using std::chrono::milliseconds;

/// Longest wait of a phase for an effect that the fault may have prevented.
constexpr milliseconds patience{200};
constexpr auto address = "fd00::1";
/// Number of offers after which a service is withdrawn when the unit stops.
constexpr std::size_t offersUntilSettled = 4;
constexpr unsigned longestLife = 60;  // seconds

/// Calls the function as the unit's process would: the system calls of this thread can fail.
template <class Action>
void asUnit(Action action)
{
    const InMarkedThread marked;
    action();
}

/// A request may fail only because memory is short.
template <class Request>
bool answer(Request request)
{
    bool answered = false;
    asUnit([&] {
        try {
            answered = request();
        }
        catch (const std::bad_alloc&) {
        }
    });
    return answered;
}

void setLink(const std::string& name, bool isUp)
{
    const int socket = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    bool isDone = ::ioctl(socket, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(isUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    isDone = isDone && ::ioctl(socket, SIOCSIFFLAGS, &request) == 0;
    const int error = errno;
    ::close(socket);
    if (!isDone)
        throw std::system_error(error, std::generic_category(), "set " + name);
}

/// Ends the process if a life takes too long.
class Watchdog
{
public:
    Watchdog()
    {
        std::signal(SIGALRM, &Watchdog::bark);
        ::alarm(longestLife);
    }
    ~Watchdog() { ::alarm(0); }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    static void bark(int /*signal*/)
    {
        constexpr char text[] = "the unit hangs\n";
        static_cast<void>(::write(STDERR_FILENO, text, sizeof text - 1) + 1);
        ::abort();
    }
};

}  // namespace

KnownServices::KnownServices(ServiceDiscovery& discovery) : m_discovery(discovery)
{
    const InMarkedThread unmarked(false);
    m_discovery.ServiceListChanged += Poco::delegate(this, &KnownServices::onServiceListChanged);
}

KnownServices::~KnownServices()
{
    const InMarkedThread unmarked(false);
    m_discovery.ServiceListChanged -= Poco::delegate(this, &KnownServices::onServiceListChanged);
}

bool KnownServices::has(const std::string& name) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_names.count(name) != 0;
}

std::size_t KnownServices::contradictions() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_contradictions;
}

void KnownServices::onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
{
    const InMarkedThread unmarked(false);
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string& name = payload.getServiceDescription()->getName();
    if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_GONE) {
        m_contradictions += m_names.erase(name) == 0;
        return;
    }
    m_contradictions += !m_names.insert(name).second;
    payload.setLocalUuid(name);
}

FaultyLife::FaultyLife()
{
    m_network.link("eth0", address, "fd00::2");
    m_network.here.setIPv6("all/keep_addr_on_down", "1");
    m_network.here.setIPv6("eth0/keep_addr_on_down", "1");
    m_speaker = std::make_unique<Speaker>(m_network.there, "eth0", "fd00::2");
    m_listener = std::make_unique<Listener>(m_network.there, "eth0");
}

FaultyLife::~FaultyLife() = default;

std::size_t FaultyLife::live(Phase phase, const SystemFault::Plan& plan)
{
    const Watchdog watchdog;
    const std::size_t descriptors = openDescriptors();
    const std::size_t threads = runningThreads();
    if (phase != Phase::Start) {
        make();
        start();
        expectWorking();
    }
    if (phase >= Phase::Stop && (plan.call == SystemCall::Allocate || plan.call == SystemCall::Send)) {
        EXPECT_TRUE(m_listener->hears(offersUntilSettled));
    }

    std::size_t calls = 0;
    {
        const SystemFault fault(plan);
        play(phase);
        calls = fault.calls();
    }

    expectTruth(phase);
    expectGoingOn(phase);
    if (!m_unit)
        make();
    stop();
    start();
    EXPECT_TRUE(m_hasSaidYes) << "after a restart";
    expectWorking();
    EXPECT_EQ(m_unit->known.contradictions(), 0u);
    m_unit.reset();
    EXPECT_TRUE(eventually([&] { return runningThreads() == threads; }));
    EXPECT_EQ(openDescriptors(), descriptors);
    return calls;
}

void FaultyLife::make()
{
    m_hasSaidYes = false;
    m_isAnnouncing = false;
    asUnit([&] {
        try {
            m_unit = std::make_unique<Unit>();
        }
        catch (const std::bad_alloc&) {
        }
        catch (const Poco::Exception&) {
        }
        catch (const std::system_error&) {
        }
    });
}

void FaultyLife::start()
{
    const Poco::Net::IPAddress own(address);
    asUnit([&] { EXPECT_NO_THROW(m_hasSaidYes = m_unit->discovery.startup(own)); });
}

void FaultyLife::stop()
{
    asUnit([&] { EXPECT_NO_THROW(EXPECT_TRUE(m_unit->discovery.shutdown())); });
    EXPECT_FALSE(m_unit->discovery.running());
}

void FaultyLife::play(Phase phase)
{
    switch (phase) {
        case Phase::Start:
            make();
            if (m_unit)
                start();
            break;
        case Phase::Discovery:
            discover();
            break;
        case Phase::Flap:
            flap();
            break;
        case Phase::Stop:
            stop();
            break;
        case Phase::Destruction:
            asUnit([&] { m_unit.reset(); });
            break;
    }
}

void FaultyLife::discover()
{
    ServiceDiscovery& discovery = m_unit->discovery;
    m_listener->clear();
    const NuboServiceDescription media = describe("Media", address, 8080, "media");
    const NuboServiceDescription brief = describe("Brief", address, 8081, "brief");
    const NuboServiceDescription near = describe("Near");
    m_isAnnouncing = answer([&] { return discovery.addService(media); });
    answer([&] { return discovery.findService(near); });
    answer([&] { return discovery.addService(brief); });
    answer([&] { return discovery.removeService(brief.getLocalUuid()); });
    m_speaker->send(Packets::find("Media"));
    m_speaker->send(Packets::offer("Near"));
    eventually([&] { return m_unit->known.has("Near"); }, patience);
    // The first repetition and the answer to the search.
    eventually([&] { return m_listener->datagrams().size() >= 6; }, patience);
    m_speaker->send(Packets::stopOffer("Near"));
    eventually([&] { return !m_unit->known.has("Near"); }, patience);
}

void FaultyLife::flap()
{
    setLink("eth0", false);
    eventually([] { return joinedInterfaces().empty(); }, patience);
    setLink("eth0", true);
    eventually([] { return !joinedInterfaces().empty(); }, patience);
}

/// What was said holds.
void FaultyLife::expectTruth(Phase phase)
{
    if (m_unit) {
        EXPECT_EQ(m_unit->discovery.running(), phase != Phase::Stop && m_hasSaidYes);
    }
}

/// What was not refused goes on without a restart.
void FaultyLife::expectGoingOn(Phase phase)
{
    if (!m_unit || !m_unit->discovery.running())
        return;
    if (phase == Phase::Discovery) {
        if (m_isAnnouncing)
            expectOnTheWire("Media");
        speakUntil(Packets::stopOffer("Near"), "Near", false);
    }
    expectWorking();
}

void FaultyLife::expectWorking()
{
    const std::string number = std::to_string(++m_lastNumber);
    m_listener->clear();
    EXPECT_TRUE(m_unit->discovery.addService(describe("Own" + number, address, 8082, "own" + number)));
    expectOnTheWire("Own" + number);
    speakUntil(Packets::offer("Far" + number), "Far" + number, true);
}

void FaultyLife::expectOnTheWire(const std::string& name)
{
    const std::string text = "otherserv=" + name;
    m_listener->clear();
    EXPECT_TRUE(eventually([&] {
        const auto& heard = m_listener->datagrams();
        return std::any_of(heard.begin(), heard.end(), [&](const Listener::Datagram& datagram) {
            return datagram.bytes.find(text) != std::string::npos;
        });
    })) << name
        << " is not offered";
}

/// Repeats the datagram until the registry knows the service, or does not.
void FaultyLife::speakUntil(const std::string& datagram, const std::string& name, bool isKnown)
{
    const auto holds = [&] { return m_unit->known.has(name) == isKnown; };
    EXPECT_TRUE(eventually([&] {
        m_speaker->send(datagram);
        return eventually(holds, milliseconds(20));
    })) << name
        << (isKnown ? " is not discovered" : " is not gone");
}

}  // namespace Nubo::ServiceDiscovery::Testing
