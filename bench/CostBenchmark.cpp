// Measures the most that a datagram of another unit costs, relative to its size.

#include "support/CostScene.h"

#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/NullChannel.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr std::array<std::size_t, 3> sizes{128, 1212, 65000};
constexpr double datagramBudget = 3;   // microseconds
constexpr double byteBudget = 0.25;    // microseconds
constexpr double mostTimesKnown = 20;  // cost limit as a multiple of known offers of the same size
constexpr double mostTimesFew = 3;  // cost limit as a multiple of the same datagram with 100 services known

const std::array<std::pair<Known, const char*>, 4> states{{{Known::Few, "100"},
                                                           {Known::HalfFull, "65,536"},
                                                           {Known::Full, "131,072"},
                                                           {Known::Instances, "4,096 of a name"}}};

class Table
{
public:
    Table()
    {
        for (const auto& [known, name] : states)
            m_scenes[known] = std::make_unique<CostScene>(known);
        std::puts(
            "| datagram | bytes | us, 100 known | of its budget | to known offers | us, 65,536 | us, 131,072 "
            "| "
            "us, 4,096 of a name | worst to 100 |");
        std::puts("|---|---|---|---|---|---|---|---|---|");
    }

    void print(const char* name, const std::string& datagram)
    {
        const std::string known = knownOffers(datagram.size());
        const double reference = microsecondsToHandle(*m_scenes[Known::Few], known) *
                                 static_cast<double>(datagram.size()) / static_cast<double>(known.size());
        const double few = microsecondsToHandle(*m_scenes[Known::Few], datagram);
        const double half = microsecondsToHandle(*m_scenes[Known::HalfFull], datagram);
        const double full = microsecondsToHandle(*m_scenes[Known::Full], datagram);
        const double instances = microsecondsToHandle(*m_scenes[Known::Instances], datagram);
        const double share = std::max({few, half, full, instances}) /
                             (datagramBudget + byteBudget * static_cast<double>(datagram.size()));
        const double toKnown = few / reference;
        const double toFew = std::max({half, full, instances}) / few;
        const bool isWithin = share <= 1 && toKnown <= mostTimesKnown && toFew <= mostTimesFew;
        m_isGood = m_isGood && isWithin;
        std::printf("| %s | %zu | %.1f | %.0f %% | %.1f | %.1f | %.1f | %.1f | %.1f%s |\n", name,
                    datagram.size(), few, share * 100, toKnown, half, full, instances, toFew,
                    isWithin ? "" : " (!)");
    }

    /// Whether every row was within its limits.
    bool isGood() const { return m_isGood; }

private:
    std::map<Known, std::unique_ptr<CostScene>> m_scenes;
    bool m_isGood = true;
};

std::string contentsOf(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

}  // namespace Nubo::ServiceDiscovery::Testing

/// Measures the contents of the files given as arguments, or the known kinds of datagrams when there are
/// none.
int main(int argc, char* argv[])
{
    using namespace Nubo::ServiceDiscovery::Testing;
    // Log lines are formatted but discarded.
    Logging::Log::Logger().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    Table table;
    for (int i = 1; i < argc; ++i)
        table.print(argv[i], contentsOf(argv[i]));
    for (const std::size_t size : sizes) {
        for (const CostlyDatagram& kind : costlyDatagrams()) {
            if (argc == 1)
                table.print(kind.name, kind.make(size));
        }
    }
    return table.isGood() ? 0 : 1;
}
