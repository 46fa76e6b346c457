#include "DataLayer/NuboServiceDescription.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

void expectMedia(const NuboServiceDescription& description)
{
    EXPECT_EQ(description.getName(), "Media");
    EXPECT_THAT(description.getVersions(), ElementsAre("1.0.0", "~1.2.0"));
    EXPECT_THAT(description.getCategories(), ElementsAre("audio", "video"));
    EXPECT_EQ(description.getIpAddressString(), "fd00::12");
    EXPECT_EQ(description.getPort(), 8080);
    EXPECT_EQ(description.getL4Proto(), OptionL4Protocol::UDP);
    EXPECT_EQ(description.getLocalUuid(), "an id");
    EXPECT_EQ(description.getUri(), "http://somewhere/");
}

/// A description of which no field has its default.
NuboServiceDescription media()
{
    NuboServiceDescription description;
    description.setName("Media");
    description.addVersion("1.0.0");
    description.addVersion("~1.2.0");
    description.addCategory("audio");
    description.addCategory("video");
    description.setIpAddress(Poco::Net::IPAddress("fd00::12"));
    description.setPort(8080);
    description.setL4Proto(OptionL4Protocol::UDP);
    description.setLocalUuid("an id");
    description.setUri("http://somewhere/");
    return description;
}

}  // namespace

TEST(NuboServiceDescriptionTest, DefaultIsEmptyOnTheWildcardAddress)
{
    const NuboServiceDescription description;

    EXPECT_EQ(description.getName(), "");
    EXPECT_THAT(description.getVersions(), IsEmpty());
    EXPECT_THAT(description.getCategories(), IsEmpty());
    EXPECT_EQ(description.getIpAddressString(), "::");
    EXPECT_EQ(description.getIpAddress().family(), Poco::Net::IPAddress::IPv6);
    EXPECT_EQ(description.getPort(), 0);
    EXPECT_EQ(description.getL4Proto(), OptionL4Protocol::TCP);
    EXPECT_EQ(description.getLocalUuid(), "");
    EXPECT_EQ(description.getUri(), "");
}

TEST(NuboServiceDescriptionTest, EveryFieldIsKeptAsSet)
{
    expectMedia(media());
}

TEST(NuboServiceDescriptionTest, CopyAndAssignmentTakeEveryField)
{
    const NuboServiceDescription source = media();
    NuboServiceDescription assigned;

    const NuboServiceDescription copy(source);  // NOLINT(performance-unnecessary-copy-initialization)
    assigned = source;

    expectMedia(copy);
    expectMedia(assigned);
}

TEST(NuboServiceDescriptionTest, UriIsPutTogetherFromAddressPortAndName)
{
    EXPECT_EQ(NuboServiceDescription::generateUri("NaviService", "fd00::12", 8080),
              "http://[fd00::12]:8080/NaviService/");
}

TEST(NuboServiceDescriptionTest, UriTakesEveryPortAndAnyTextAsItIs)
{
    EXPECT_EQ(NuboServiceDescription::generateUri("a b", "10.0.0.1", 0), "http://[10.0.0.1]:0/a b/");
    EXPECT_EQ(NuboServiceDescription::generateUri("N", "::", 65535), "http://[::]:65535/N/");
    EXPECT_EQ(NuboServiceDescription::generateUri("", "fd00::1", 1), "http://[fd00::1]:1//");
}

TEST(NuboServiceDescriptionTest, UriOfADescriptionIsMadeFromItsOwnFields)
{
    NuboServiceDescription description;
    description.setName("Media");
    description.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    description.setPort(80);

    EXPECT_EQ(description.generateUri(), "http://[fd00::1]:80/Media/");
}

TEST(NuboServiceDescriptionTest, ChangingACopyLeavesTheSourceUnchanged)
{
    const NuboServiceDescription source = media();

    NuboServiceDescription copy(source);
    copy.setName("Navi");
    copy.addVersion("2.0.0");
    copy.addCategory("maps");

    expectMedia(source);
    EXPECT_EQ(copy.getName(), "Navi");
    EXPECT_THAT(copy.getVersions(), ElementsAre("1.0.0", "~1.2.0", "2.0.0"));
    EXPECT_THAT(copy.getCategories(), ElementsAre("audio", "video", "maps"));
}

TEST(NuboServiceDescriptionTest, ListsCanBeSetAsAWhole)
{
    NuboServiceDescription description;
    description.addVersion("1.0.0");
    description.addCategory("audio");

    description.setVersions({"2.0.0", "2.1.0"});
    description.setCategories({});
    description.addVersion("3.0.0");

    EXPECT_THAT(description.getVersions(), ElementsAre("2.0.0", "2.1.0", "3.0.0"));
    EXPECT_THAT(description.getCategories(), IsEmpty());
}

TEST(NuboServiceDescriptionTest, TextSizeCountsEveryText)
{
    NuboServiceDescription description;
    EXPECT_EQ(description.getTextSize(), 0u);

    description.setName("four");
    description.setLocalUuid("six123");
    description.setUri("one");
    description.addVersion("1.0.0");
    description.addCategory("audio!");

    EXPECT_EQ(description.getTextSize(), 4u + 6u + 3u + 5u + 6u + 2 * sizeof(std::string));
}

TEST(NuboServiceDescriptionTest, TextSizeCountsTextsOfAnyLength)
{
    constexpr std::size_t length = 70000;  // more than 16 bits hold
    NuboServiceDescription description;

    description.setName(std::string(length, 'n'));
    EXPECT_EQ(description.getTextSize(), length);
    description.setLocalUuid(std::string(length, 'i'));
    EXPECT_EQ(description.getTextSize(), 2 * length);
    description.setUri(std::string(length, 'u'));
    EXPECT_EQ(description.getTextSize(), 3 * length);
    description.addVersion(std::string(length, 'v'));
    EXPECT_EQ(description.getTextSize(), 4 * length + sizeof(std::string));
    description.addCategory(std::string(length, 'c'));
    EXPECT_EQ(description.getTextSize(), 5 * length + 2 * sizeof(std::string));
}

}  // namespace Nubo::ServiceDiscovery::Testing
