// Searches for the costliest datagrams for their size: libFuzzer keeps each input that costs more than all
// previous ones of its size and state.

#include "cost/Work.h"
#include "support/CostScene.h"

#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

using Testing::CostScene;
using Testing::Known;

constexpr std::array<Known, 4> states{Known::Few, Known::HalfFull, Known::Full, Known::Instances};
constexpr std::size_t sizeClasses = 16;  // powers of two
constexpr std::size_t steps = 256;       // 4 % each
constexpr std::size_t smallest = 60;     // bytes; below it, the fixed cost per datagram dominates

/// One byte per size, state and cost that an input can have. libFuzzer treats each as new coverage.
__attribute__((section("__libfuzzer_extra_counters"), used))
std::uint8_t counters[sizeClasses * states.size() * steps];

std::size_t sizeClassOf(std::size_t size)
{
    return std::min<std::size_t>(static_cast<std::size_t>(std::log2(std::max<std::size_t>(size, 1))),
                                 sizeClasses - 1);
}

/// Counts log lines, because code that is not instrumented formats them.
class CountingChannel : public Poco::Channel
{
public:
    void log(const Poco::Message&) override { ++m_lines; }

    std::uint64_t lines() const { return m_lines; }

private:
    std::uint64_t m_lines = 0;
};

class Search
{
public:
    Search()
    {
        Logging::Log::Logger().setChannel(m_channel);
        for (std::size_t i = 0; i < states.size(); ++i)
            m_scenes[i] = std::make_unique<CostScene>(states[i]);
        const std::string reference = Testing::knownOffers(1212);
        const std::uint64_t work = workOf(0, reference);
        m_referencePerByte = static_cast<double>(work) / static_cast<double>(reference.size());
        m_lineWork = work / 30;  // measured: a line takes about 0.5 microseconds, these offers 17
        if (const char* folder = std::getenv("SEEDS"))
            writeSeeds(folder);
    }

    void tryInput(std::string_view input)
    {
        if (input.empty())
            return;
        const std::size_t state = static_cast<std::uint8_t>(input.front()) % states.size();
        const std::string_view datagram = input.substr(1);
        if (datagram.size() < smallest)
            return;
        // Cost as a multiple of the cost of known offers of that size.
        const double times = static_cast<double>(workOf(state, datagram)) /
                             (m_referencePerByte * static_cast<double>(datagram.size()));
        const std::size_t sizeClass = sizeClassOf(datagram.size());
        const double step = std::log(std::max(times, 0.01) / 0.01) / std::log(1.04);
        counters[(sizeClass * states.size() + state) * steps +
                 std::min(static_cast<std::size_t>(step), steps - 1)] = 1;
        double& worst = m_worst[sizeClass][state];
        if (times > worst * 1.02) {
            worst = times;
            keep(sizeClass, state, datagram, times);
        }
    }

private:
    /// Writes the known kinds for each state.
    static void writeSeeds(const std::string& folder)
    {
        std::size_t number = 0;
        for (const Testing::CostlyDatagram& kind : Testing::costlyDatagrams()) {
            for (const std::size_t size : {std::size_t{128}, std::size_t{400}, std::size_t{1212}}) {
                for (std::size_t state = 0; state < states.size(); ++state)
                    std::ofstream(folder + "/seed-" + std::to_string(number++), std::ios::binary)
                        << static_cast<char>(state) << kind.make(size);
            }
        }
    }

    std::uint64_t workOf(std::size_t state, std::string_view datagram)
    {
        CostScene& scene = *m_scenes[state];
        scene.forget();
        const std::uint64_t linesBefore = m_channel->lines();
        const std::uint64_t before = workDone();
        scene.handle(datagram);
        return workDone() - before + m_lineWork * (m_channel->lines() - linesBefore);
    }

    static void keep(std::size_t sizeClass, std::size_t state, std::string_view datagram, double times)
    {
        const char* folder = std::getenv("WORST");
        if (!folder)
            return;
        const std::string name = std::to_string(std::size_t{1} << sizeClass) + "-" + std::to_string(state);
        std::ofstream(std::string(folder) + "/" + name, std::ios::binary) << datagram;
        std::ofstream(std::string(folder) + "/" + name + ".times") << times << ' ' << datagram.size() << '\n';
    }

    const Poco::AutoPtr<CountingChannel> m_channel{new CountingChannel};
    std::array<std::unique_ptr<CostScene>, states.size()> m_scenes;
    std::uint64_t m_lineWork = 0;
    double m_referencePerByte = 0;
    std::array<std::array<double, states.size()>, sizeClasses> m_worst{};
};

}  // namespace

}  // namespace Nubo::ServiceDiscovery::Fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Nubo::ServiceDiscovery::Fuzzing::Search search;
    search.tryInput({reinterpret_cast<const char*>(data), size});
    return 0;
}
