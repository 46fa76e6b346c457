// What it costs to encode and to decode one offer of a usual size.

#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

#include <KELUtilLib/Logging.h>

#include <Poco/MemoryStream.h>

#include <array>

#include <benchmark/benchmark.h>

namespace Nubo::ServiceDiscovery {

namespace {

/// A service with six configuration pairs: two versions, one category and the three of every service.
NuboServiceDescription describe()
{
    NuboServiceDescription description;
    description.setName("NavigationService");
    description.addVersion("1.2.0");
    description.addVersion("~1.3.1");
    description.addCategory("navigation");
    description.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    description.setPort(8080);
    return description;
}

SOME_IP_SD_Header makeOffer(const SDService& service)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    fields.serviceID = service.getServiceId();
    fields.instanceID = 1;
    fields.majorVersion = service.getMajorVersion();
    fields.ttl = service.getTTL();
    SOME_IP_SD_Entry_Service::Ptr entry = new SOME_IP_SD_Entry_Service(fields, service.getMinorVersion());
    entry->setFstOptionRun({0, 1});
    entry->setSndOptionRun({1, 1});

    const NuboServiceDescription& description = service.getNuboDescription();
    const auto* address = static_cast<const std::uint8_t*>(description.getIpAddress().addr());
    SOME_IP_SD_Header packet(0);
    packet.addEntry(entry, false);
    packet.addOption(new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, address, description.getPort(),
                                                description.getL4Proto()),
                     false);
    packet.addOption(new SOME_IP_SD_Option_Configuration(service.getConfiguration()), false);
    return packet;
}

using Datagram = std::array<char, 1212>;

std::size_t encode(const SDService& service, Datagram& datagram)
{
    Poco::MemoryOutputStream stream(datagram.data(), static_cast<std::streamsize>(datagram.size()));
    stream << makeOffer(service);
    return static_cast<std::size_t>(stream.charsWritten());
}

void quietLog()
{
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
}

void encodeOffer(benchmark::State& state)
{
    quietLog();
    const SDService service(describe());
    Datagram datagram;
    std::size_t size = 0;
    for (auto _ : state) {
        size = encode(service, datagram);
        benchmark::DoNotOptimize(datagram);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

/// From the bytes to the record that the state machine gets.
void decodeOffer(benchmark::State& state)
{
    quietLog();
    Datagram datagram;
    const std::size_t size = encode(SDService(describe()), datagram);
    for (auto _ : state) {
        Poco::MemoryInputStream stream(datagram.data(), static_cast<std::streamsize>(size));
        SOME_IP_SD_Header packet(size);
        stream >> packet;
        const SOME_IP_SD_Header::EntryData data = packet.getEntryData(0);
        const SDService service(*data.entry.cast<SOME_IP_SD_Entry_Service>(),
                                *data.options.at(0).cast<SOME_IP_SD_Option_IPv6>(),
                                *data.options.at(1).cast<SOME_IP_SD_Option_Configuration>());
        benchmark::DoNotOptimize(service.getTTL());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

BENCHMARK(encodeOffer);
BENCHMARK(decodeOffer);

}  // namespace

}  // namespace Nubo::ServiceDiscovery
