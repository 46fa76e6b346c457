// Removes and restores an interface many times; see `flaps --help`. Run it with
// tests/support/in-namespace.sh.

#include "soak/Resources.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

using namespace Nubo::ServiceDiscovery;
using namespace Nubo::ServiceDiscovery::Testing;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A unit must send and receive again within this time after an interface becomes usable.
constexpr milliseconds soon{3000};

constexpr auto ours = "fd00::1";
constexpr auto theirs = "fd00::2";
constexpr int warmUp = 20;               // number of flaps before resources are first measured
constexpr double mostGrowth = 1.0 / 16;  // MiB of the heap; one leaked record per flap would exceed it

/// The unit under test, with either kind of dispatcher. It counts events instead of storing them.
template <class Platform>
class FlappedUnit
{
public:
    explicit FlappedUnit(const NetworkPair& network)
    {
        const InNamespace inside(network.here);
        m_parts = std::make_unique<Parts>();
    }

    bool startup() { return m_parts->discovery.startup(Poco::Net::IPAddress(ours)); }
    ServiceDiscovery& discovery() { return m_parts->discovery; }
    auto& dispatcher() { return m_parts->platform.dispatcher(); }
    std::size_t discovered() const { return m_parts->discovered; }
    std::size_t gone() const { return m_parts->gone; }

private:
    struct Parts
    {
        Parts() { discovery.ServiceListChanged += Poco::delegate(this, &Parts::onServiceListChanged); }
        ~Parts() { discovery.ServiceListChanged -= Poco::delegate(this, &Parts::onServiceListChanged); }

        void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
        {
            if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED) {
                payload.setLocalUuid("theirs");
                ++discovered;
            }
            else {
                ++gone;
            }
        }

        Platform platform;
        ServiceDiscovery discovery;
        std::atomic<std::size_t> discovered{0};
        std::atomic<std::size_t> gone{0};
    };

    std::unique_ptr<Parts> m_parts;
};

struct Result
{
    std::vector<milliseconds> hearing;
    std::vector<milliseconds> announcing;
    int failures = 0;
    Resources before;
    Resources after;
};

/// After a flap, checks that the unit receives a stranger's offer and stop-offer, and announces a new
/// service.
template <class Unit>
bool isAtWork(Unit& unit, Listener& listener, Speaker& speaker, Result& result)
{
    const auto begin = Clock::now();
    const auto passed = [&] { return std::chrono::duration_cast<milliseconds>(Clock::now() - begin); };
    const auto sends = [&](const std::string& packet) {
        try {
            speaker.send(packet);
        }
        catch (const Poco::Exception&) {
            // The link may not be ready yet.
        }
    };
    listener.clear();
    const std::size_t discovered = unit.discovered();
    const std::size_t gone = unit.gone();
    if (!unit.discovery().addService(describe("Ours", ours, 8080, "ours")))
        return false;

    const bool hears = eventually(
        [&] {
            sends(Packets::offer("Theirs"));
            return unit.discovered() != discovered;
        },
        soon);
    result.hearing.push_back(passed());
    const std::string text = configText("otherserv=Ours");
    const bool announces = eventually(
        [&] {
            const auto& heard = listener.datagrams();
            return std::any_of(heard.begin(), heard.end(), [&](const Listener::Datagram& datagram) {
                return datagram.bytes.find(text) != std::string::npos;
            });
        },
        soon);
    result.announcing.push_back(passed());
    const bool loses = eventually(
        [&] {
            sends(Packets::stopOffer("Theirs"));
            return unit.gone() != gone;
        },
        soon);
    return unit.discovery().removeService("ours") && hears && announces && loses;
}

/// What is in use when no send or listing is under way, which only add to it: the least of some looks.
Resources settled()
{
    constexpr int looks = 40;
    Resources result = Resources::current();
    for (int look = 1; look < looks; ++look) {
        std::this_thread::sleep_for(milliseconds(10));
        const Resources now = Resources::current();
        result.descriptors = std::min(result.descriptors, now.descriptors);
        result.threads = std::min(result.threads, now.threads);
        result.allocated = now.allocated;
    }
    return result;
}

template <class Unit, class Flap>
Result repeat(int times, const NetworkPair& network, Unit& unit, Flap flap)
{
    Listener listener(network.there, "eth0");
    Speaker speaker(network.there, "eth0", theirs);
    Result result;
    result.hearing.reserve(static_cast<std::size_t>(times + warmUp + 1));
    result.announcing.reserve(static_cast<std::size_t>(times + warmUp + 1));
    const auto flapAndCheck = [&] {
        flap();
        result.failures += isAtWork(unit, listener, speaker, result) ? 0 : 1;
    };
    for (int i = -warmUp; i < times; ++i) {
        if (i == 0) {
            listener.clear();
            result.before = settled();
        }
        flapAndCheck();
    }
    // After a flap, addresses are kept for 5 s, until the next flap.
    const auto memory = [] { return Resources::current().allocated; };
    eventually([&] { return memory() <= result.before.allocated; }, milliseconds(6000));
    flapAndCheck();  // the looks must not meet a unit that has yet to open its socket
    listener.clear();
    eventually([&] { return memory() <= result.before.allocated; }, milliseconds(4000));
    result.after = settled();
    return result;
}

milliseconds median(std::vector<milliseconds> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

milliseconds worst(const std::vector<milliseconds>& times)
{
    return *std::max_element(times.begin(), times.end());
}

/// Prints a row of the table and returns whether the run passed.
bool print(const char* kind, int times, const Result& result)
{
    const double growth = result.after.allocated - result.before.allocated;
    const bool isGood = result.failures == 0 && result.before.descriptors == result.after.descriptors &&
                        result.before.threads == result.after.threads &&
                        (growth <= mostGrowth || isSanitized);
    std::printf("%-32s %6d %7d %6lld / %-6lld %6lld / %-6lld %4zu / %-4zu %4zu / %-4zu %+9.1f kB  %s\n", kind,
                times, result.failures, static_cast<long long>(median(result.hearing).count()),
                static_cast<long long>(worst(result.hearing).count()),
                static_cast<long long>(median(result.announcing).count()),
                static_cast<long long>(worst(result.announcing).count()), result.before.descriptors,
                result.after.descriptors, result.before.threads, result.after.threads, growth * 1024,
                isGood ? "passed" : "FAILED");
    return isGood;
}

/// Flaps an interface of a unit that follows the kernel.
bool flapKernels(const char* kind, int times, const std::string& down, const std::string& up)
{
    const NetworkPair network;
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.there.ip("link add spare type bridge");  // gives the two ends of the link different indices
    network.link("eth0", ours, theirs);
    FlappedUnit<NetlinkScope> unit(network);
    if (!unit.startup())
        return false;
    return print(kind, times, repeat(times, network, unit, [&] {
                     network.here.ip(down);
                     network.here.ip(up);
                 }));
}

/// Flaps an interface through reports of the platform: removed, then added.
bool flapReports(const char* kind, int times)
{
    const NetworkPair network;
    network.link("eth0", ours, theirs);
    FlappedUnit<PlatformScope> unit(network);
    unit.dispatcher().addInterface("eth0", ours);
    if (!unit.startup())
        return false;
    return print(kind, times, repeat(times, network, unit, [&] {
                     unit.dispatcher().removeInterface("eth0", ours);
                     unit.dispatcher().addInterface("eth0", ours);
                 }));
}

}  // namespace

int main(int argc, char** argv)
try {
    ::setlinebuf(stdout);
    Logging::Log::Logger().setLevel(0);
    int times = 0;
    CLI::App app(
        "Removes and restores an interface many times, in each of three ways. The unit must send and "
        "receive within 3 s after each time, and must not use more resources at the end than at the start.");
    app.add_option("TIMES", times, "number of times, in each way")->required()->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    std::printf("%-32s %6s %7s %15s %15s %11s %11s %12s\n", "", "times", "failed", "hears, ms",
                "announces, ms", "descriptors", "threads", "memory");
    bool isGood = flapKernels("address removed and added", times, "address delete fd00::1/64 dev eth0",
                              "address add fd00::1/64 dev eth0 nodad");
    isGood &= flapKernels("link down and up", times, "link set eth0 down", "link set eth0 up");
    isGood &= flapReports("interface reported gone and there", times);
    return isGood ? 0 : 1;
}
catch (const std::exception& exception) {
    std::fprintf(stderr, "flaps: %s\n", exception.what());
    return 2;
}
