// Measures encoding and decoding packets, compared with the minimum work on the same bytes.

#include "Allocations.h"
#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

#include <KELUtilLib/Logging.h>

#include <Poco/MemoryStream.h>

#include <array>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

namespace Nubo::ServiceDiscovery {

namespace {

using Datagram = std::array<char, 1212>;

enum Kind
{
    Find,
    Offer,  ///< with six configuration pairs: two versions, one category and three that every service has
    SevenOffers  ///< seven such packets in one datagram
};

SDService makeService(Kind kind)
{
    if (kind == Find)
        return SDService("Media");
    NuboServiceDescription description;
    description.setName("Media");
    description.addVersion("1.2.0");
    description.addVersion("~1.3.1");
    description.addCategory("audio");
    description.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    description.setPort(8080);
    return SDService(description);
}

SOME_IP_SD_Header makePacket(const SDService& service, Kind kind)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = kind == Find ? EntryType::FIND_SERVICE : EntryType::OFFER_SERVICE;
    fields.serviceID = service.getServiceId();
    fields.instanceID = 1;
    fields.majorVersion = service.getMajorVersion();
    fields.ttl = service.getTTL();
    SOME_IP_SD_Entry_Service::Ptr entry = new SOME_IP_SD_Entry_Service(fields, service.getMinorVersion());

    SOME_IP_SD_Header packet(0);
    packet.addEntry(entry, false);
    std::uint8_t configurationIndex = 0;
    if (kind != Find) {
        const NuboServiceDescription& description = service.getNuboDescription();
        const auto* address = static_cast<const std::uint8_t*>(description.getIpAddress().addr());
        entry->setFstOptionRun({0, 1});
        packet.addOption(new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, address, description.getPort(),
                                                    description.getL4Proto()),
                         false);
        configurationIndex = 1;
    }
    entry->setSndOptionRun({configurationIndex, 1});
    packet.addOption(new SOME_IP_SD_Option_Configuration(service.getConfiguration()), false);
    return packet;
}

std::size_t encode(const SDService& service, Kind kind, Datagram& datagram)
{
    Poco::MemoryStreamBuf buffer(datagram.data(), static_cast<std::streamsize>(datagram.size()));
    std::ostream stream(&buffer);
    const int packets = kind == SevenOffers ? 7 : 1;
    for (int i = 0; i < packets; ++i)
        stream << makePacket(service, kind);
    return static_cast<std::size_t>(buffer.charsWritten());
}

/// The part of an offer that the record receives: only the identity of its service, or everything.
enum class Extent
{
    Instance,
    Whole
};

/// Decodes the bytes to the records that the state machine receives.
unsigned decode(Datagram& datagram, std::size_t size, Kind kind, Extent extent)
{
    Poco::MemoryStreamBuf buffer(datagram.data(), static_cast<std::streamsize>(size));
    std::istream stream(&buffer);
    unsigned result = 0;
    for (std::size_t left = size; left > 0;) {
        SOME_IP_SD_Header packet(left);
        stream >> packet;
        left -= packet.getSize();
        const SOME_IP_SD_Header::EntryData data = packet.getEntryData(0);
        const auto configuration = data.options.back().cast<SOME_IP_SD_Option_Configuration>();
        if (kind == Find) {
            const auto name = configuration->getConfigurationPairs().find("otherserv");
            result += SDService(name->second).getTTL();
        }
        else {
            SDService::Ptr record =
                SDService::instanceOf(*data.entry.cast<SOME_IP_SD_Entry_Service>(),
                                      *data.options.front().cast<SOME_IP_SD_Option_IPv6>(), *configuration);
            if (extent == Extent::Whole)
                record->complete(*configuration);
            result += record->getTTL();
        }
    }
    return result;
}

/// Input of a run: a datagram with the packets of its kind.
struct Sample
{
    explicit Sample(benchmark::State& state) : kind(static_cast<Kind>(state.range(0)))
    {
        Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
        state.counters["packets"] = kind == SevenOffers ? 7 : 1;
        size = encode(service, kind, datagram);
    }

    const Kind kind;
    const SDService service = makeService(kind);
    Datagram datagram;
    std::size_t size;
};

/// Reports allocations and throughput of a run per packet.
class PerPacket
{
public:
    explicit PerPacket(benchmark::State& state) : m_state(state), m_before(allocations()) {}
    ~PerPacket()
    {
        const double packets = static_cast<double>(m_state.iterations()) * m_state.counters["packets"];
        m_state.counters["allocations"] = static_cast<double>(allocations() - m_before) / packets;
        m_state.SetItemsProcessed(static_cast<std::int64_t>(packets));
    }

    PerPacket(const PerPacket&) = delete;
    PerPacket& operator=(const PerPacket&) = delete;

private:
    benchmark::State& m_state;
    const std::uint64_t m_before;
};

void encodePacket(benchmark::State& state)
{
    Sample sample(state);
    const PerPacket report(state);
    for (auto _ : state) {
        encode(sample.service, sample.kind, sample.datagram);
        benchmark::DoNotOptimize(sample.datagram);
    }
}

template <Extent extent>
void decodePacket(benchmark::State& state)
{
    Sample sample(state);
    const PerPacket report(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(decode(sample.datagram, sample.size, sample.kind, extent));
}

void decodeKnown(benchmark::State& state)
{
    decodePacket<Extent::Instance>(state);
}

void decodeNew(benchmark::State& state)
{
    decodePacket<Extent::Whole>(state);
}

/// Lower bounds: store, or load, the bytes one by one, as a codec in plain C would.
void storeBytes(benchmark::State& state)
{
    Sample sample(state);
    Datagram datagram;
    const PerPacket report(state);
    for (auto _ : state) {
        for (std::size_t i = 0; i < sample.size; ++i) {
            datagram[i] = sample.datagram[i];
            benchmark::ClobberMemory();  // prevents the compiler from using memcpy
        }
    }
}

void loadBytes(benchmark::State& state)
{
    Sample sample(state);
    const PerPacket report(state);
    for (auto _ : state) {
        for (std::size_t i = 0; i < sample.size; ++i)
            benchmark::DoNotOptimize(sample.datagram[i]);
    }
}

void copyBytes(benchmark::State& state)
{
    Sample sample(state);
    Datagram datagram;
    const PerPacket report(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sample.size);
        std::memcpy(datagram.data(), sample.datagram.data(), sample.size);
        benchmark::DoNotOptimize(datagram);
    }
}

void kinds(benchmark::internal::Benchmark* benchmark)
{
    for (const Kind kind : {Find, Offer, SevenOffers})
        benchmark->Arg(kind);
}

BENCHMARK(encodePacket)->Apply(kinds);
BENCHMARK(storeBytes)->Apply(kinds);
BENCHMARK(decodeKnown)->Apply(kinds);
BENCHMARK(decodeNew)->Apply(kinds);
BENCHMARK(loadBytes)->Apply(kinds);
BENCHMARK(copyBytes)->Apply(kinds);

}  // namespace

}  // namespace Nubo::ServiceDiscovery
