#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "zoo/Engine.h"
#include "zoo/LogLimit.h"
#include "zoo/Specimen.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// A length field of a datagram.
struct LengthField
{
    std::size_t position;
    std::size_t width;
};

std::uint32_t valueOf(const std::string& datagram, LengthField field)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < field.width; ++i)
        value = value << 8 | static_cast<unsigned char>(datagram[field.position + i]);
    return value;
}

std::string with(std::string datagram, LengthField field, std::uint32_t value)
{
    for (std::size_t i = field.width; i > 0; --i, value >>= 8)
        datagram[field.position + i - 1] = static_cast<char>(value);
    return datagram;
}

/// Returns the length fields of packets, arrays and options in a valid datagram. Excludes those of
/// configuration texts, which are single bytes.
std::vector<LengthField> lengthFields(const std::string& datagram)
{
    std::vector<LengthField> fields;
    const auto take = [&](std::size_t position, std::size_t width) {
        fields.push_back({position, width});
        return valueOf(datagram, fields.back());
    };
    for (std::size_t packet = 0; packet < datagram.size();) {
        const std::size_t end = packet + 8 + take(packet + 4, 4);
        const std::size_t options = packet + 24 + take(packet + 20, 4);
        take(options, 4);
        for (std::size_t option = options + 4; option < end;)
            option += 3 + take(option, 2);
        packet = end;
    }
    return fields;
}

struct GoldenPacketMutationTest : ::testing::TestWithParam<Specimen>
{
    void expectHandledAsItShouldBe()
    {
        engine.announceLocal();
        const LogCatcher log;
        EXPECT_EQ(engine.handle(Packets::datagram(golden)), GetParam().handled);
        EXPECT_EQ(reportedLines(log.messages()), GetParam().log);
    }

    void handleTruncations()
    {
        for (std::size_t size = 0; size < golden.size(); ++size)
            engine.handle(Packets::datagram(golden.substr(0, size)));
    }

    void handleWrongLengths()
    {
        for (const LengthField field : lengthFields(golden)) {
            const std::uint32_t value = valueOf(golden, field);
            const auto max = static_cast<std::uint32_t>((std::uint64_t{1} << 8 * field.width) - 1);
            for (const std::uint32_t wrong : {0u, 1u, value - 1, value + 1, max - 1, max})
                engine.handle(Packets::datagram(with(golden, field, wrong)));
        }
    }

    void handleEveryValueOfEveryByte()
    {
        Multicast::MulticastDataPtr mutated = Packets::datagram(golden);
        for (char& byte : mutated->buffer) {
            const char good = byte;
            for (int value = 0; value < 256; ++value) {
                byte = static_cast<char>(value);
                engine.handle(mutated);
            }
            byte = good;
        }
    }

    const std::string& golden = GetParam().bytes;
    Engine engine;
};

}  // namespace

TEST_P(GoldenPacketMutationTest, NoMutationHarmsTheEngine)
{
    expectHandledAsItShouldBe();
    const std::size_t heapBefore = heapInUse();

    {
        const LogLimit silence(LogLimit::none);
        handleTruncations();
        handleWrongLengths();
        handleEveryValueOfEveryByte();
    }

    expectHandledAsItShouldBe();
    constexpr std::size_t slack = 64 * 1024;  // for containers; one leak per mutation would exceed it tenfold
    EXPECT_LT(heapInUse(), heapBefore + slack);
}

INSTANTIATE_TEST_SUITE_P(Zoo, GoldenPacketMutationTest,
                         ::testing::ValuesIn(readSpecimens("golden-packets.json").at("packets")),
                         [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
