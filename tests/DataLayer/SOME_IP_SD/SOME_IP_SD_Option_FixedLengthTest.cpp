#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Behaviour of every kind of option with fields of a fixed length.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;

namespace {

struct Kind
{
    const char* name;
    OptionType::Type_t type;
    std::uint16_t length;
    std::string fields;   ///< bytes behind the reserved byte
    std::string asEmpty;  ///< the same bytes of a new option
    std::streamsize (*readBytes)(const std::string& hex);
    const char* tooLongLine;
    const char* tooShortLine;
    const char* cutByTwoLine;
    const char* cutByOneLine;
    const char* emptyLine;
    const char* writtenTooLongLine;

    friend void PrintTo(const Kind& kind, std::ostream* stream) { *stream << kind.name; }
};

struct SOME_IP_SD_Option_FixedLengthTest : ::testing::TestWithParam<Kind>
{
    /// Reads the bytes behind the type byte into an option of a received length.
    SOME_IP_SD_Option::Ptr read(int length, const std::string& hex)
    {
        const auto lengthField = static_cast<std::uint16_t>(length);
        SOME_IP_SD_Option::Ptr option = SOME_IP_SD_Option::makeReceived(GetParam().type, lengthField);
        stream = streamOf(hex);
        stream >> *option;
        return option;
    }

    /// The bytes behind the type byte without the last ones.
    std::string cutBy(std::size_t bytes) const
    {
        constexpr std::size_t digitsAndBlank = 3;
        return whole.substr(0, whole.size() - bytes * digitsAndBlank);
    }

    const std::string whole = "00 " + GetParam().fields;
    LogCatcher log;
    std::istringstream stream;
};

}  // namespace

TEST_P(SOME_IP_SD_Option_FixedLengthTest, ReadingReturnsTheBytesAfterTheReservedByte)
{
    EXPECT_EQ(GetParam().readBytes(whole + " ff"), GetParam().length - 1);
    EXPECT_EQ(GetParam().readBytes(cutBy(1)), GetParam().length - 2);
    EXPECT_EQ(GetParam().readBytes(cutBy(3)), GetParam().length - 4);
}

TEST_P(SOME_IP_SD_Option_FixedLengthTest, OptionThatEndsTheStreamIsGood)
{
    const SOME_IP_SD_Option::Ptr option = read(GetParam().length, whole);

    EXPECT_TRUE(option->isValid());
    EXPECT_TRUE(stream.good());
}

TEST_P(SOME_IP_SD_Option_FixedLengthTest, LongerLengthIsReadAsFarAsTheFixedFieldsAndAMismatch)
{
    const SOME_IP_SD_Option::Ptr option = read(GetParam().length + 1, whole + " ee");

    EXPECT_FALSE(option->isValid());
    EXPECT_EQ(unread(stream), 1) << "only the fixed fields are read";
    EXPECT_THAT(log.errors(), ElementsAre(GetParam().tooLongLine));
}

TEST_P(SOME_IP_SD_Option_FixedLengthTest, ShorterLengthIsAMismatch)
{
    const SOME_IP_SD_Option::Ptr option = read(GetParam().length - 1, whole);

    EXPECT_FALSE(option->isValid());
    EXPECT_THAT(log.errors(), ElementsAre(GetParam().tooShortLine));
}

TEST_P(SOME_IP_SD_Option_FixedLengthTest, OptionCutShortIsInvalid)
{
    const SOME_IP_SD_Option::Ptr cutByTwo = read(GetParam().length, cutBy(2));
    const SOME_IP_SD_Option::Ptr cutByOne = read(GetParam().length, cutBy(1));

    EXPECT_FALSE(cutByTwo->isValid());
    EXPECT_FALSE(cutByOne->isValid());
    EXPECT_THAT(log.errors(), ElementsAre(GetParam().cutByTwoLine, GetParam().cutByOneLine));
}

TEST_P(SOME_IP_SD_Option_FixedLengthTest, EmptyStreamLacksTheReservedByteToo)
{
    const SOME_IP_SD_Option::Ptr option = read(GetParam().length, "");

    EXPECT_FALSE(option->isValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: SOME_IP_SD_Option size=1, but 0 read by deserialisation",
                                          GetParam().emptyLine));
}

TEST_P(SOME_IP_SD_Option_FixedLengthTest, LengthThatDoesNotFitIsReportedWhenWriting)
{
    const std::string start = toHex(std::string{'\0', static_cast<char>(GetParam().length + 1),
                                                static_cast<char>(GetParam().type), '\0'});
    const SOME_IP_SD_Option::Ptr option = read(GetParam().length + 1, whole + " ee");
    log.clear();

    EXPECT_EQ(written(*option), start + " " + GetParam().asEmpty);

    EXPECT_THAT(log.errors(), ElementsAre(GetParam().writtenTooLongLine));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SOME_IP_SD_Option_FixedLengthTest,
    ::testing::Values(
        Kind{"IPv4", OptionType::IP4_ENDPOINT, 9, "0a 01 02 fd 00 11 77 1a", "00 00 00 00 00 00 00 00",
             [](const std::string& hex) {
                 return Opened<SOME_IP_SD_Option_IPv4>(OptionType::IP4_ENDPOINT).readBytes(hex);
             },
             "Error: SOME_IP_SD_IPv4_Option size=9, but 8 read by deserialisation!",
             "Error: SOME_IP_SD_IPv4_Option size=7, but 8 read by deserialisation!",
             "Error: SOME_IP_SD_IPv4_Option size=8, but 6 read by deserialisation!",
             "Error: SOME_IP_SD_IPv4_Option size=8, but 7 read by deserialisation!",
             "Error: SOME_IP_SD_IPv4_Option size=8, but 0 read by deserialisation!",
             "Error: SOME_IP_SD_Option_IPv4 size=9, but 8 written by serialisation!"},
        Kind{"IPv6", OptionType::IP6_ENDPOINT, 21,
             "fd 00 00 00 00 00 00 00 00 00 00 00 00 ab 00 01 00 11 77 1a",
             "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
             [](const std::string& hex) {
                 return Opened<SOME_IP_SD_Option_IPv6>(OptionType::IP6_ENDPOINT).readBytes(hex);
             },
             "Error: SOME_IP_SD_IPv6_Option size=21, but 20 read by deserialisation!",
             "Error: SOME_IP_SD_IPv6_Option size=19, but 20 read by deserialisation!",
             "Error: SOME_IP_SD_IPv6_Option size=20, but 18 read by deserialisation!",
             "Error: SOME_IP_SD_IPv6_Option size=20, but 19 read by deserialisation!",
             "Error: SOME_IP_SD_IPv6_Option size=20, but 0 read by deserialisation!",
             "Error: SOME_IP_SD_Option_IPv6 size=21, but 20 written by serialisation!"},
        Kind{"LoadBalancing", OptionType::LOAD_BALANCING, 5, "01 02 03 04", "00 00 00 00",
             [](const std::string& hex) { return Opened<SOME_IP_SD_Option_LoadBalancing>().readBytes(hex); },
             "Error: SOME_IP_SD_Option_LoadBalancing size=5, but 4 read by deserialisation!",
             "Error: SOME_IP_SD_Option_LoadBalancing size=3, but 4 read by deserialisation!",
             "Error: SOME_IP_SD_Option_LoadBalancing size=4, but 2 read by deserialisation!",
             "Error: SOME_IP_SD_Option_LoadBalancing size=4, but 3 read by deserialisation!",
             "Error: SOME_IP_SD_Option_LoadBalancing size=4, but 0 read by deserialisation!",
             "Error: SOME_IP_SD_Option_LoadBalancing size=5, but 4 written by serialisation!"}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
