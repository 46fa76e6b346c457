// What a datagram of another unit costs at most, for its size.

#include "support/CostScene.h"

#include <KELUtilLib/Logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/NullChannel.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr std::array<std::size_t, 3> sizes{128, 1212, 65000};
constexpr double datagramBudget = 3;   // microseconds
constexpr double byteBudget = 0.25;    // microseconds
constexpr double mostTimesKnown = 20;  // a datagram of known offers of that size
constexpr double mostTimesFew = 3;     // the same with 100 services known

const std::array<std::pair<Known, const char*>, 4> states{{{Known::Few, "100"},
                                                           {Known::HalfFull, "65,536"},
                                                           {Known::Full, "131,072"},
                                                           {Known::Instances, "4,096 of a name"}}};

/// Whether everything is within its bounds.
bool printTable()
{
    std::map<Known, std::unique_ptr<CostScene>> scenes;
    for (const auto& [known, name] : states)
        scenes[known] = std::make_unique<CostScene>(known);
    bool isGood = true;
    std::puts(
        "| datagram | bytes | us, 100 known | of its budget | to known offers | us, 65,536 | us, 131,072 | "
        "us, 4,096 of a name | worst to 100 |");
    std::puts("|---|---|---|---|---|---|---|---|---|");
    for (const std::size_t size : sizes) {
        const double reference = microsecondsToHandle(*scenes[Known::Few], knownOffers(size), 15);
        for (const CostlyDatagram& kind : costlyDatagrams()) {
            const std::string datagram = kind.make(size);
            const double few = microsecondsToHandle(*scenes[Known::Few], datagram);
            const double half = microsecondsToHandle(*scenes[Known::HalfFull], datagram);
            const double full = microsecondsToHandle(*scenes[Known::Full], datagram);
            const double instances = microsecondsToHandle(*scenes[Known::Instances], datagram);
            const double share = std::max({few, half, full, instances}) /
                                 (datagramBudget + byteBudget * static_cast<double>(datagram.size()));
            const double toKnown = few / reference;
            const double toFew = std::max({half, full, instances}) / few;
            const bool isWithin = share <= 1 && toKnown <= mostTimesKnown && toFew <= mostTimesFew;
            isGood = isGood && isWithin;
            std::printf("| %s | %zu | %.1f | %.0f %% | %.1f | %.1f | %.1f | %.1f | %.1f%s |\n", kind.name,
                        datagram.size(), few, share * 100, toKnown, half, full, instances, toFew,
                        isWithin ? "" : " (!)");
        }
    }
    return isGood;
}

}  // namespace

}  // namespace Nubo::ServiceDiscovery::Testing

int main()
{
    // Lines are made, and thrown away.
    Logging::Log::Logger().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    return Nubo::ServiceDiscovery::Testing::printTable() ? 0 : 1;
}
