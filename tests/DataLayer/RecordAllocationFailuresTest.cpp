#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "support/FailingAllocations.h"

#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

/// Descriptions and records when memory runs out. Under AddressSanitizer, leaks also fail a test.
namespace Nubo::ServiceDiscovery::Testing {

namespace {

using Texts = std::vector<std::string>;

/// A text too long for the small-string optimisation.
std::string longText(const std::string& begin)
{
    return begin + " and enough behind it to need memory";
}

const std::string name = longText("Media");
const std::string otherName = longText("Navigation with maps");
const Texts manyVersions{"1.0.0", longText("2.0.0"), longText("3.0.0"), longText("4.0.0"), longText("5.0.0")};
const Texts manyCategories{longText("maps"), longText("traffic"), longText("places")};
const Poco::Net::IPAddress otherAddress("fd00:1111:2222:3333:4444:5555:6666:7777");

NuboServiceDescription media()
{
    NuboServiceDescription description;
    description.setName(name);
    description.setVersions({"1.0.0", "~1.2.0"});
    description.setCategories({longText("audio"), longText("video")});
    description.setIpAddress(Poco::Net::IPAddress("fd00:1234:5678:9abc:def0:1234:5678:12"));
    description.setPort(8080);
    description.setLocalUuid(longText("an id"));
    description.setUri(description.generateUri());
    return description;
}

NuboServiceDescription navi()
{
    NuboServiceDescription description;
    description.setName(otherName);
    description.setVersions(manyVersions);
    description.setCategories(manyCategories);
    description.setIpAddress(otherAddress);
    description.setPort(9000);
    description.setL4Proto(OptionL4Protocol::UDP);
    description.setLocalUuid(longText("other id"));
    description.setUri(description.generateUri());
    return description;
}

ConfigurationPairs offered()
{
    return {{"otherserv", name},
            {"version", longText("1.0.0")},
            {"version", longText("2.0.0")},
            {"category", longText("audio")},
            {"category", longText("video")}};
}

std::string textOf(const NuboServiceDescription& description)
{
    std::ostringstream text;
    text << "name " << description.getName() << "\n";
    for (const std::string& version : description.getVersions())
        text << "version " << version << "\n";
    for (const std::string& category : description.getCategories())
        text << "category " << category << "\n";
    text << "endpoint " << description.getIpAddress().toString() << " = " << description.getIpAddressString()
         << " port " << description.getPort() << " protocol " << +description.getL4Proto() << "\n"
         << "id " << description.getLocalUuid() << "\nuri " << description.getUri() << "\n";
    return text.str();
}

std::string textOf(const SDService& record)
{
    std::ostringstream text;
    text << textOf(record.getNuboDescription()) << "TTL " << record.getTTL() << " service "
         << record.getServiceId() << " instance " << record.getInstanceId() << " version "
         << record.getMajorVersion_AsUnsigned() << "." << record.getMinorVersion() << " " << record.getType()
         << " " << record.getState() << "\n";
    for (const auto& [key, value] : record.getConfiguration())
        text << "pair " << key << "=" << value << "\n";
    text << "packet " << record.getPacket() << "\n";
    return text.str();
}

/// A change of an object that needs memory.
template <class Object>
struct Change
{
    const char* name;
    void (*apply)(Object&);

    friend void PrintTo(const Change& row, std::ostream* stream) { *stream << row.name; }
};

/// Lets each allocation of the change fail once. The object must stay unchanged until the change succeeds.
template <class Object>
void expectWholeChangeOrNone(Object object, void (*apply)(Object&))
{
    const std::string before = textOf(object);
    Object changed(object);
    apply(changed);

    std::size_t n = 1;
    for (; failsAtAllocation(n, [&] { apply(object); }); ++n)
        ASSERT_EQ(textOf(object), before) << "after failure of allocation " << n;

    EXPECT_GT(n, 1u) << "the change needs no memory";
    EXPECT_EQ(textOf(object), textOf(changed));
}

struct DescriptionAllocationFailuresTest : ::testing::TestWithParam<Change<NuboServiceDescription>>
{};

struct RecordAllocationFailuresTest : ::testing::TestWithParam<Change<SDService>>
{};

}  // namespace

TEST_P(DescriptionAllocationFailuresTest, LeaveTheDescriptionAsItWas)
{
    expectWholeChangeOrNone(media(), GetParam().apply);
}

TEST_P(DescriptionAllocationFailuresTest, LeaveAnEmptyDescriptionEmpty)
{
    expectWholeChangeOrNone(NuboServiceDescription(), GetParam().apply);
}

using Description = NuboServiceDescription;

INSTANTIATE_TEST_SUITE_P(
    Changes, DescriptionAllocationFailuresTest,
    ::testing::Values(
        Change<Description>{"Name", [](Description& description) { description.setName(otherName); }},
        Change<Description>{"OneVersion",
                            [](Description& description) { description.addVersion(longText("7.0.0")); }},
        Change<Description>{"Versions",
                            [](Description& description) { description.setVersions(manyVersions); }},
        Change<Description>{"OneCategory",
                            [](Description& description) { description.addCategory(longText("maps")); }},
        Change<Description>{"Categories",
                            [](Description& description) { description.setCategories(manyCategories); }},
        Change<Description>{"Address",
                            [](Description& description) { description.setIpAddress(otherAddress); }},
        Change<Description>{"LocalUuid",
                            [](Description& description) { description.setLocalUuid(longText("7")); }},
        Change<Description>{"Uri", [](Description& description) { description.setUri(longText("http")); }},
        Change<Description>{"Assignment",
                            [](Description& description) {
                                static const Description source = navi();
                                description = source;
                            }},
        Change<Description>{"AssignmentOfATemporary",
                            [](Description& description) { description = navi(); }}),
    [](const auto& row) { return row.param.name; });

TEST_P(RecordAllocationFailuresTest, LeaveTheRecordAsItWas)
{
    SDService record(media());
    record.setPacket(longText("bytes"));

    expectWholeChangeOrNone(record, GetParam().apply);
}

INSTANTIATE_TEST_SUITE_P(
    Changes, RecordAllocationFailuresTest,
    ::testing::Values(
        Change<SDService>{"Description", [](SDService& record) { record.setNuboDescription(navi()); }},
        Change<SDService>{"LocalUuid", [](SDService& record) { record.setLocalUuid(longText("7")); }},
        Change<SDService>{"Configuration",
                          [](SDService& record) {
                              static const ConfigurationPairs pairs = offered();
                              record.setConfiguration(pairs);
                          }},
        Change<SDService>{"Packet", [](SDService& record) { record.setPacket(longText("other")); }},
        Change<SDService>{"Completion",
                          [](SDService& record) {
                              static const SOME_IP_SD_Option_Configuration option(offered());
                              record.complete(option);
                          }}),
    [](const auto& row) { return row.param.name; });

TEST(NuboServiceDescriptionTest, FailedMoveLeavesTheSourceAsItWas)
{
    Description source = media();
    const std::string before = textOf(source);

    std::optional<Description> moved;

    std::size_t n = 1;
    for (; failsAtAllocation(n, [&] { moved.emplace(std::move(source)); }); ++n)
        ASSERT_EQ(textOf(source), before) << "after failure of allocation " << n;

    EXPECT_GT(n, 1u) << "no memory was needed";
    EXPECT_EQ(textOf(*moved), before);
}

namespace {

/// A way to make a record.
struct Construction
{
    const char* name;
    SDService::Ptr (*make)();

    friend void PrintTo(const Construction& row, std::ostream* stream) { *stream << row.name; }
};

struct RecordConstructionTest : ::testing::TestWithParam<Construction>
{};

template <class Make>
SDService::Ptr makeFromOffer(Make make)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    const SOME_IP_SD_Entry_Service entry(fields, 2);
    const SOME_IP_SD_Option_IPv6 ipv6(OptionType::IP6_ENDPOINT, "fd00::1", 8080, OptionL4Protocol::TCP);
    static const SOME_IP_SD_Option_Configuration configuration(offered());
    return make(entry, ipv6, configuration);
}

}  // namespace

TEST_P(RecordConstructionTest, GivesAWholeRecordOrNone)
{
    const std::string whole = textOf(*GetParam().make());
    SDService::Ptr record;

    std::size_t n = 1;
    for (; failsAtAllocation(n, [&] { record = GetParam().make(); }); ++n)
        ASSERT_TRUE(record.isNull()) << "after failure of allocation " << n;

    EXPECT_GT(n, 1u) << "no memory was needed";
    EXPECT_EQ(textOf(*record), whole);
}

INSTANTIATE_TEST_SUITE_P(
    Constructors, RecordConstructionTest,
    ::testing::Values(Construction{"Description",
                                   []() -> SDService::Ptr {
                                       static const Description description = media();
                                       return new SDService(description);
                                   }},
                      Construction{"Fields",
                                   []() -> SDService::Ptr {
                                       static const ConfigurationPairs pairs = offered();
                                       return new SDService(media(), 3, 1, 2, 3, 4, pairs,
                                                            SDService::Type::ANNOUNCED);
                                   }},
                      Construction{"Name", []() -> SDService::Ptr { return new SDService(name); }},
                      Construction{"Offer",
                                   [] {
                                       return makeFromOffer([](const auto&... parts) -> SDService::Ptr {
                                           return new SDService(parts...);
                                       });
                                   }},
                      Construction{"Instance", [] { return makeFromOffer(SDService::instanceOf); }},
                      Construction{"Copy",
                                   []() -> SDService::Ptr {
                                       static const SDService source(media());
                                       return new SDService(source);
                                   }}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
