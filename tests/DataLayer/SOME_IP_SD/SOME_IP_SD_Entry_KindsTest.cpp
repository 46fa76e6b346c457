#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Behaviour of every kind of entry.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using CommonFields = SOME_IP_SD_Entry::CommonFields;

namespace {

struct Service
{
    using Entry = SOME_IP_SD_Entry_Service;

    static SOME_IP_SD_Entry::Ptr make(const CommonFields& fields) { return new Entry(fields, 0x01020304); }

    static constexpr auto name = "Service";
    static constexpr auto type = EntryType::OFFER_SERVICE;
    static constexpr auto otherType = EntryType::SUBSCRIBE;
    static constexpr auto lastFields = "01 02 03 04";
    static constexpr auto cutLine = "Error: SOME_IP_SD_Entry_Service size=4, but 3 read by deserialisation!";
    static constexpr auto notWrittenLine =
        "Error: SOME_IP_SD_Entry_Service size=4, but 0 written by serialisation!";
    static constexpr auto invalidLine = "Error: Service Entry data invalid!";
};

struct Eventgroup
{
    using Entry = SOME_IP_SD_Entry_Eventgroup;

    static SOME_IP_SD_Entry::Ptr make(const CommonFields& fields)
    {
        return new Entry(fields, true, 0x0c, 0x0d0e);
    }

    static constexpr auto name = "Eventgroup";
    static constexpr auto type = EntryType::SUBSCRIBE;
    static constexpr auto otherType = EntryType::OFFER_SERVICE;
    static constexpr auto lastFields = "00 8c 0d 0e";
    static constexpr auto cutLine =
        "Error: SOME_IP_SD_Entry_Eventgroup size=4, but 3 read by deserialisation!";
    static constexpr auto notWrittenLine = "Error: SOME_IP_SD_Entry size=4, but 0 written by serialisation!";
    static constexpr auto invalidLine = "Error: Eventgroup Entry data invalid!";
};

struct KindNames
{
    template <class Kind>
    static std::string GetName(int)
    {
        return Kind::name;
    }
};

template <class Kind>
struct SOME_IP_SD_Entry_KindsTest : ::testing::Test
{
    using Entry = typename Kind::Entry;

    static SOME_IP_SD_Entry::Ptr makeWhole()
    {
        CommonFields fields;
        fields.type = Kind::type;
        return Kind::make(fields);
    }

    LogCatcher log;
    Entry entry{Kind::type};
};

using Kinds = ::testing::Types<Service, Eventgroup>;

}  // namespace

TYPED_TEST_SUITE(SOME_IP_SD_Entry_KindsTest, Kinds, KindNames);

TYPED_TEST(SOME_IP_SD_Entry_KindsTest, EntryThatEndsTheStreamIsGood)
{
    std::istringstream stream = streamOf("00 00 20 ff fe 00 01 01 00 00 03 00 00 00 01");

    stream >> this->entry;

    EXPECT_TRUE(this->entry.isValid());
    EXPECT_TRUE(stream.good());
}

TYPED_TEST(SOME_IP_SD_Entry_KindsTest, ReadingReturnsTheBytesOfTheLastFields)
{
    using OpenedEntry = Opened<typename TypeParam::Entry>;

    EXPECT_EQ(OpenedEntry(TypeParam::type).readBytes("00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00 ff"), 4);
    EXPECT_EQ(OpenedEntry(TypeParam::type).readBytes("00 00 20 ff fe 00 01 01 00 00 03 00 00"), 2);
    EXPECT_EQ(OpenedEntry(TypeParam::type).readBytes("01 02 ab 03 04 05 06 07 00 08 0e 00"), 1);
}

TYPED_TEST(SOME_IP_SD_Entry_KindsTest, ReadingMakesARefusedEntryValid)
{
    typename TypeParam::Entry refused(TypeParam::otherType);

    streamOf("00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00") >> refused;

    EXPECT_TRUE(refused.isValid());
}

TYPED_TEST(SOME_IP_SD_Entry_KindsTest, LastFieldsCutShortAreNotTakenOverAndLeaveTheEntryValid)
{
    SOME_IP_SD_Entry::Ptr whole = this->makeWhole();
    const std::string typeByte = written(*whole).substr(0, 3);

    streamOf("01 02 ab ff fd 00 02 07 00 08 0e 55 05 ff") >> *whole;

    EXPECT_TRUE(whole->isValid());
    EXPECT_EQ(written(*whole), typeByte + "01 02 ab ff fd 00 02 07 00 08 0e " + TypeParam::lastFields);
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::cutLine));
}

TYPED_TEST(SOME_IP_SD_Entry_KindsTest, StreamThatTakesNoBytesIsReportedWhenWriting)
{
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);

    stream << this->entry;

    EXPECT_THAT(this->log.errors(),
                ElementsAre("Error: SOME_IP_SD_Entry size=12, but 0 written by serialisation!",
                            TypeParam::notWrittenLine));
}

namespace {

using MakeEmpty = SOME_IP_SD_Entry::Ptr (*)(EntryType::Type_t);
using Make = SOME_IP_SD_Entry::Ptr (*)(const CommonFields&);

template <class Kind>
SOME_IP_SD_Entry::Ptr makeEmpty(EntryType::Type_t type)
{
    return new typename Kind::Entry(type);
}

struct CutEntry
{
    std::string kind;
    EntryType::Type_t type;
    MakeEmpty make;
    std::size_t size;  ///< bytes present, of 15
    std::vector<std::string> lines;

    friend void PrintTo(const CutEntry& row, std::ostream* stream) { *stream << row.kind << row.size; }
};

struct CutEntryTest : ::testing::TestWithParam<CutEntry>
{};

template <class Kind>
CutEntry cut(std::size_t size, const std::vector<std::string>& lines)
{
    return {Kind::name, Kind::type, makeEmpty<Kind>, size, lines};
}

struct WrongType
{
    std::string kind;
    MakeEmpty makeEmpty;
    Make make;
    std::uint8_t type;
    std::string line;
    const char* invalidLine;

    friend void PrintTo(const WrongType& row, std::ostream* stream) { *stream << row.kind << +row.type; }
};

struct WrongTypeTest : ::testing::TestWithParam<WrongType>
{
    const EntryType::Type_t type = static_cast<EntryType::Type_t>(GetParam().type);
    LogCatcher log;
};

template <class Kind>
WrongType wrong(std::uint8_t type, const std::string& line)
{
    return {Kind::name, makeEmpty<Kind>, Kind::make, type, line, Kind::invalidLine};
}

}  // namespace

TEST_P(CutEntryTest, StaysInvalid)
{
    const LogCatcher log;
    SOME_IP_SD_Entry::Ptr entry = GetParam().make(GetParam().type);
    const std::string bytes = "00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00"_bytes;
    std::istringstream stream(bytes.substr(0, GetParam().size));

    stream >> *entry;

    EXPECT_FALSE(entry->isValid());
    EXPECT_THAT(log.errors(), ElementsAreArray(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Entry, CutEntryTest,
    ::testing::Values(
        cut<Service>(0, {"Error: SOME_IP_SD_Entry size=12, but 3 read by deserialisation",
                         "Error: SOME_IP_SD_Entry_Service size=4, but 0 read by deserialisation!"}),
        cut<Service>(3, {"Error: SOME_IP_SD_Entry size=12, but 6 read by deserialisation",
                         "Error: SOME_IP_SD_Entry_Service size=4, but 0 read by deserialisation!"}),
        cut<Service>(7, {"Error: SOME_IP_SD_Entry size=12, but 10 read by deserialisation",
                         "Error: SOME_IP_SD_Entry_Service size=4, but 0 read by deserialisation!"}),
        cut<Service>(8, {"Error: SOME_IP_SD_Entry_Service size=4, but 0 read by deserialisation!"}),
        cut<Service>(11, {"Error: SOME_IP_SD_Entry_Service size=4, but 0 read by deserialisation!"}),
        cut<Service>(14, {"Error: SOME_IP_SD_Entry_Service size=4, but 3 read by deserialisation!"}),
        cut<Eventgroup>(0, {"Error: SOME_IP_SD_Entry size=12, but 3 read by deserialisation",
                            "Error: SOME_IP_SD_Entry_Eventgroup size=4, but 0 read by deserialisation!"}),
        cut<Eventgroup>(7, {"Error: SOME_IP_SD_Entry size=12, but 10 read by deserialisation",
                            "Error: SOME_IP_SD_Entry_Eventgroup size=4, but 0 read by deserialisation!"}),
        cut<Eventgroup>(11, {"Error: SOME_IP_SD_Entry_Eventgroup size=4, but 0 read by deserialisation!"}),
        cut<Eventgroup>(14, {"Error: SOME_IP_SD_Entry_Eventgroup size=4, but 3 read by deserialisation!"})),
    [](const auto& row) { return row.param.kind + "After" + std::to_string(row.param.size); });

TEST_P(WrongTypeTest, OfAnEntryOfFieldsMakesItInvalid)
{
    CommonFields fields;
    fields.type = type;

    const SOME_IP_SD_Entry::Ptr entry = GetParam().make(fields);

    EXPECT_FALSE(entry->isValid());
    EXPECT_EQ(entry->getType(), type);
    EXPECT_THAT(log.errors(), ElementsAre(GetParam().line, GetParam().invalidLine));
}

TEST_P(WrongTypeTest, OfAnEntryToBeReadIsLogged)
{
    const SOME_IP_SD_Entry::Ptr entry = GetParam().makeEmpty(type);

    EXPECT_FALSE(entry->isValid());
    EXPECT_THAT(log.errors(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Entry, WrongTypeTest,
    ::testing::Values(
        wrong<Service>(0x02,
                       "Error: Service SOME_IP_SD_Entry needs to be of type {FIND_SERVICE=0x00, "
                       "OFFER_SERVICE=0x01}, but 0xUNKNOWN 0x2 given!"),
        wrong<Service>(0x05,
                       "Error: Service SOME_IP_SD_Entry needs to be of type {FIND_SERVICE=0x00, "
                       "OFFER_SERVICE=0x01}, but 0xUNKNOWN 0x5 given!"),
        wrong<Service>(0x06,
                       "Error: Service SOME_IP_SD_Entry needs to be of type {FIND_SERVICE=0x00, "
                       "OFFER_SERVICE=0x01}, but 0xSUBSCRIBE given!"),
        wrong<Service>(0x07,
                       "Error: Service SOME_IP_SD_Entry needs to be of type {FIND_SERVICE=0x00, "
                       "OFFER_SERVICE=0x01}, but 0xSUBSCRIBE_ACK given!"),
        wrong<Service>(0xff,
                       "Error: Service SOME_IP_SD_Entry needs to be of type {FIND_SERVICE=0x00, "
                       "OFFER_SERVICE=0x01}, but 0xUNKNOWN 0xff given!"),
        wrong<Eventgroup>(0x00,
                          "Error: Eventgroup SOME_IP_SD_Entry needs to be of type "
                          "{SUBSCRIBE=0x06, SUBSCRIBE_ACK=0x07}, but 0xFIND_SERVICE given!"),
        wrong<Eventgroup>(0x01,
                          "Error: Eventgroup SOME_IP_SD_Entry needs to be of type "
                          "{SUBSCRIBE=0x06, SUBSCRIBE_ACK=0x07}, but 0xOFFER_SERVICE given!"),
        wrong<Eventgroup>(0x05,
                          "Error: Eventgroup SOME_IP_SD_Entry needs to be of type "
                          "{SUBSCRIBE=0x06, SUBSCRIBE_ACK=0x07}, but 0xUNKNOWN 0x5 given!"),
        wrong<Eventgroup>(0x08,
                          "Error: Eventgroup SOME_IP_SD_Entry needs to be of type "
                          "{SUBSCRIBE=0x06, SUBSCRIBE_ACK=0x07}, but 0xUNKNOWN 0x8 given!"),
        wrong<Eventgroup>(0xff,
                          "Error: Eventgroup SOME_IP_SD_Entry needs to be of type "
                          "{SUBSCRIBE=0x06, SUBSCRIBE_ACK=0x07}, but 0xUNKNOWN 0xff given!")),
    [](const auto& row) { return row.param.kind + "Type" + std::to_string(row.param.type); });

}  // namespace Nubo::ServiceDiscovery::Testing
