#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// An option with any implementation, or without one.
struct BareOption : SOME_IP_SD_Option
{
    explicit BareOption(SOME_IP_SD_Option_Pimpl* implementation) : SOME_IP_SD_Option(implementation) {}
    using SOME_IP_SD_Option::setLength;
};

/// The common part, in an option whose implementation adds nothing to it.
struct SOME_IP_SD_OptionTest : ::testing::Test
{
    LogCatcher log;
    BareOption option{new SOME_IP_SD_Option_Pimpl(OptionType::LOAD_BALANCING, 0x0102)};
};

}  // namespace

TEST_F(SOME_IP_SD_OptionTest, ImplementationOfGivenTypeAndLengthIsValid)
{
    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getType(), OptionType::LOAD_BALANCING);
    EXPECT_EQ(option.getLength(), 0x0102);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_OptionTest, SizeIsTheLengthAndThree)
{
    EXPECT_EQ(option.getSize(), 0x0105u);

    option.setLength(65535);

    EXPECT_EQ(option.getLength(), 65535);
    EXPECT_EQ(option.getSize(), 65538u);
}

TEST_F(SOME_IP_SD_OptionTest, CommonPartIsWrittenInFourBytes)
{
    EXPECT_EQ(written(option), "01 02 02 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_OptionTest, ReservedByteIsReadAndWrittenBackAsHeld)
{
    std::istringstream stream = streamOf("55 66");

    stream >> option;

    EXPECT_EQ(unread(stream), 1);
    EXPECT_EQ(written(option), "01 02 02 55");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_OptionTest, MissingReservedByteMakesTheOptionInvalid)
{
    std::istringstream stream;

    stream >> option;

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: SOME_IP_SD_Option size=1, but 0 read by deserialisation"));
}

TEST_F(SOME_IP_SD_OptionTest, StreamThatTakesNoBytesIsReportedWhenWriting)
{
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);

    stream << option;

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Option size=4, but 0 written by serialisation!"));
}

TEST_F(SOME_IP_SD_OptionTest, TextOfAnUnknownClassSaysSo)
{
    EXPECT_EQ(option.toString(1), "\t<UNKNOWN OPTION TYPE>");
}

TEST_F(SOME_IP_SD_OptionTest, WithoutImplementationTheOptionIsUnusable)
{
    BareOption unusable(nullptr);

    unusable.setLength(5);

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Option::SOME_IP_SD_Option: given Implementation is nullptr!"));
    EXPECT_FALSE(unusable.isValid());
    EXPECT_EQ(unusable.getType(), OptionType::NONE);
    EXPECT_EQ(unusable.getLength(), 0);
    EXPECT_EQ(unusable.toString(0), "<UNKNOWN OPTION TYPE>");
    EXPECT_EQ(written(unusable), "");
}

TEST_F(SOME_IP_SD_OptionTest, WithoutImplementationNothingIsRead)
{
    BareOption unusable(nullptr);
    std::istringstream stream = streamOf("01");

    stream >> unusable;

    EXPECT_EQ(unread(stream), 1);
    EXPECT_FALSE(unusable.isValid());
}

TEST_F(SOME_IP_SD_OptionTest, ReadingReturnsTheReservedByteOrNothing)
{
    SOME_IP_SD_Option_Pimpl implementation(OptionType::LOAD_BALANCING, 5);
    std::istringstream stream = streamOf("55");

    EXPECT_EQ(implementation.deserialise(stream), 1);
    EXPECT_EQ(implementation.deserialise(stream), 0);
}

TEST_F(SOME_IP_SD_OptionTest, OptionsAreNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<SOME_IP_SD_Option_LoadBalancing>);
    EXPECT_FALSE(std::is_copy_assignable_v<SOME_IP_SD_Option_LoadBalancing>);
}

TEST_F(SOME_IP_SD_OptionTest, OptionsAreDestroyedThroughTheirBase)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<SOME_IP_SD_Option>);
    EXPECT_TRUE(std::has_virtual_destructor_v<SOME_IP_SD_Option_Pimpl>);
}

namespace {

template <class Class>
bool isA(const SOME_IP_SD_Option& option)
{
    return dynamic_cast<const Class*>(&option) != nullptr;
}

struct ReceivedType
{
    const char* name;
    std::uint8_t type;
    bool (*hasClass)(const SOME_IP_SD_Option&);
    OptionType::Type_t madeType;
    std::uint16_t shortestLength;
};

struct ReceivedOptionTest : ::testing::TestWithParam<ReceivedType>
{
    const OptionType::Type_t type = static_cast<OptionType::Type_t>(GetParam().type);
};

}  // namespace

TEST_P(ReceivedOptionTest, HasTheClassOfItsTypeAndTheReceivedLength)
{
    const LogCatcher log;

    const SOME_IP_SD_Option::Ptr option = SOME_IP_SD_Option::makeReceived(type, 77);

    EXPECT_TRUE(GetParam().hasClass(*option));
    EXPECT_EQ(option->getType(), GetParam().madeType);
    EXPECT_EQ(option->getLength(), 77);
    EXPECT_EQ(option->getSize(), 80u);
    EXPECT_FALSE(option->isValid());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(ReceivedOptionTest, NeedsTheLengthOfItsFields)
{
    EXPECT_EQ(SOME_IP_SD_Option::shortestLength(type), GetParam().shortestLength);
}

INSTANTIATE_TEST_SUITE_P(
    Types, ReceivedOptionTest,
    ::testing::Values(
        ReceivedType{"Configuration", 0x01, isA<SOME_IP_SD_Option_Configuration>, OptionType::CONFIGURATION,
                     1},
        ReceivedType{"LoadBalancing", 0x02, isA<SOME_IP_SD_Option_LoadBalancing>, OptionType::LOAD_BALANCING,
                     5},
        ReceivedType{"IPv4Endpoint", 0x04, isA<SOME_IP_SD_Option_IPv4>, OptionType::IP4_ENDPOINT, 9},
        ReceivedType{"IPv4Multicast", 0x14, isA<SOME_IP_SD_Option_IPv4>, OptionType::IP4_MULTICAST, 9},
        ReceivedType{"IPv4SdEndpoint", 0x24, isA<SOME_IP_SD_Option_IPv4>, OptionType::IP4_SD_ENDPOINT, 9},
        ReceivedType{"IPv6Endpoint", 0x06, isA<SOME_IP_SD_Option_IPv6>, OptionType::IP6_ENDPOINT, 21},
        ReceivedType{"IPv6Multicast", 0x16, isA<SOME_IP_SD_Option_IPv6>, OptionType::IP6_MULTICAST, 21},
        ReceivedType{"IPv6SdEndpoint", 0x26, isA<SOME_IP_SD_Option_IPv6>, OptionType::IP6_SD_ENDPOINT, 21},
        ReceivedType{"Zero", 0x00, isA<SOME_IP_SD_Option_Placeholder>, OptionType::NONE, 1},
        ReceivedType{"Unknown", 0x03, isA<SOME_IP_SD_Option_Placeholder>, OptionType::NONE, 1},
        ReceivedType{"Largest", 0xff, isA<SOME_IP_SD_Option_Placeholder>, OptionType::NONE, 1}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
