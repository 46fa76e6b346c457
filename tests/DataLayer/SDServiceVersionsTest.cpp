#include "DataLayer/SDService.h"
#include "support/LogCatcher.h"

#include <Poco/Exception.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Versions that a record accepts or refuses.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

NuboServiceDescription media(const std::vector<std::string>& versions)
{
    NuboServiceDescription description;
    description.setName("Media");
    description.setVersions(versions);
    return description;
}

struct AcceptedVersions
{
    const char* name;
    std::vector<std::string> versions;
    unsigned int major;
    unsigned int minor;
};

struct AcceptedVersionsTest : ::testing::TestWithParam<AcceptedVersions>
{};

}  // namespace

TEST_P(AcceptedVersionsTest, GiveTheHighestMajorAndMinor)
{
    const LogCatcher log;

    const SDService service(media(GetParam().versions));

    EXPECT_EQ(service.getMajorVersion_AsUnsigned(), GetParam().major);
    EXPECT_EQ(service.getMinorVersion(), GetParam().minor);
    EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    SDService, AcceptedVersionsTest,
    ::testing::Values(
        AcceptedVersions{"HigherMinorLater", {"1.2.3", "1.10.0"}, 1, 10},
        AcceptedVersions{"LowerMinorLater", {"1.10.0", "1.2.3"}, 1, 10},
        AcceptedVersions{"LowerMajorLater", {"2.0.0", "1.9.9"}, 2, 0},
        AcceptedVersions{"HigherMajorWithLowerMinorLater", {"1.9.9", "2.0.0"}, 2, 0},
        AcceptedVersions{"Tilde", {"~1.2.3"}, 1, 2}, AcceptedVersions{"TwoTokens", {"2.1"}, 2, 1},
        AcceptedVersions{"PatchIsNeverLookedAt", {"1.2.x"}, 1, 2},
        AcceptedVersions{"PatchMayBeEmpty", {"1.2."}, 1, 2}, AcceptedVersions{"ZeroOnly", {"0.0.1"}, 0, 0},
        AcceptedVersions{"MinorOnly", {"0.3.1"}, 0, 3}, AcceptedVersions{"LargestMajor", {"255.0.0"}, 255, 0},
        AcceptedVersions{"LargestMinor", {"1.4294967295.0"}, 1, 4294967295u},
        AcceptedVersions{"ThousandsSeparators", {"1,0.1,000.0"}, 10, 1000}),
    [](const auto& row) { return row.param.name; });

namespace {

struct RefusedVersions
{
    const char* name;
    std::vector<std::string> versions;
    const char* line;
};

struct RefusedVersionsTest : ::testing::TestWithParam<RefusedVersions>
{};

}  // namespace

TEST_P(RefusedVersionsTest, AreLoggedInOneLineAndThrowWithoutAText)
{
    const LogCatcher log;

    try {
        const SDService service(media(GetParam().versions));
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::InvalidArgumentException& exception) {
        EXPECT_EQ(exception.message(), "");
    }
    EXPECT_THAT(log.lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    SDService, RefusedVersionsTest,
    ::testing::Values(
        RefusedVersions{
            "None",
            {},
            "Error: ServiceDiscovery failed to create SD Service \"Media\" due to invalid Version(s)"},
        RefusedVersions{"MajorOver255",
                        {"256.0.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (256.0.0)"},
        RefusedVersions{"MajorNotANumber",
                        {"x.1.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (x.1.0)"},
        RefusedVersions{"MajorEmpty",
                        {".1.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (.1.0)"},
        RefusedVersions{"MajorNegative",
                        {"-1.1.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (-1.1.0)"},
        RefusedVersions{"MinorNotANumber",
                        {"1.x.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.x.0)"},
        RefusedVersions{"MinorEmpty",
                        {"1."},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.)"},
        RefusedVersions{"MinorOver32Bits",
                        {"1.4294967296.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.4294967296.0)"},
        RefusedVersions{"FourTokens",
                        {"1.2.3.4"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.2.3.4)"},
        RefusedVersions{"TwoTildes",
                        {"~~1.2.3"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (~~1.2.3)"},
        RefusedVersions{"OneToken",
                        {"1"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s): (1) Out of range"},
        RefusedVersions{"OneTokenThatIsNoNumber",
                        {"x"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (x)"},
        RefusedVersions{"OneTokenOver255",
                        {"256"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (256)"},
        RefusedVersions{"TildeAlone",
                        {"~"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (~)"},
        RefusedVersions{"TildeBeforeTheMinor",
                        {"1.~2.3"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.~2.3)"},
        RefusedVersions{"Caret",
                        {"^1.2.3"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (^1.2.3)"},
        RefusedVersions{"BlankBehindTheMajor",
                        {"1 .2.3"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1 .2.3)"},
        RefusedVersions{"BlankBehindTheMinor",
                        {"1.2 .3"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.2 .3)"},
        RefusedVersions{"EmptyMinorBeforeAPatch",
                        {"1..2"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1..2)"},
        RefusedVersions{"FourTokensWithAnEmptyOne",
                        {"1.2.3."},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.2.3.)"},
        RefusedVersions{"SeveralBadOnesStopAtTheFirst",
                        {"1.0.0", "1.x.0", "y.0.0"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s), not in semVer - format([~]major.minor.patch) (1.x.0)"},
        RefusedVersions{"Empty",
                        {""},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s): () Out of range"},
        RefusedVersions{"GoodOnesBefore",
                        {"1.0.0", "2"},
                        "Error: ServiceDiscovery failed to create SD Service \"Media\" with given "
                        "Version(s): (2) Out of range"}),
    [](const auto& row) { return row.param.name; });

TEST(SDServiceVersionsTest, MissingVersionsAreRefusedHoweverGoodTheRestIs)
{
    const LogCatcher log;
    NuboServiceDescription description = media({});
    description.addCategory("audio");
    description.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    description.setPort(8080);

    EXPECT_THROW(SDService{description}, Poco::InvalidArgumentException);

    EXPECT_THAT(log.lines(), ElementsAre("Error: ServiceDiscovery failed to create SD Service \"Media\" due "
                                         "to invalid Version(s)"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
