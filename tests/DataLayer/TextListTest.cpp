#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/TextList.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TextList shared(const std::vector<std::string>& texts)
{
    return TextList(std::make_shared<const TextList::Shared>(texts));
}

/// Whether both refer to the same texts in memory.
bool share(const TextList& one, const TextList& other)
{
    return &one.texts() == &other.texts();
}

}  // namespace

TEST(TextListTest, NewListIsEmpty)
{
    EXPECT_THAT(TextList().texts(), IsEmpty());
    EXPECT_EQ(TextList().size(), 0u);
}

TEST(TextListTest, CopyOfOwnTextsIsIndependent)
{
    const TextList list(std::vector<std::string>{"1.0.0"});

    TextList copy = list;
    copy.add("2.0.0");

    EXPECT_THAT(copy.texts(), ElementsAre("1.0.0", "2.0.0"));
    EXPECT_THAT(list.texts(), ElementsAre("1.0.0"));
    EXPECT_FALSE(share(list, TextList(list)));
}

TEST(TextListTest, CopyOfSharedTextsCopiesNoText)
{
    const TextList list = shared({"1.0.0", "2.0.0"});

    EXPECT_TRUE(share(list, TextList(list)));
}

TEST(TextListTest, ChangeOfSharedTextsLeavesTheOthersAsTheyWere)
{
    const TextList list = shared({"1.0.0"});

    TextList copy = list;
    copy.add("2.0.0");
    copy.add("3.0.0");

    EXPECT_THAT(copy.texts(), ElementsAre("1.0.0", "2.0.0", "3.0.0"));
    EXPECT_THAT(list.texts(), ElementsAre("1.0.0"));
}

TEST(TextListTest, SizeIsThatOfAllTexts)
{
    const std::vector<std::string> texts{"1.0.0", "a text that is long enough for memory of its own"};
    const std::size_t size = 2 * sizeof(std::string) + texts[0].size() + texts[1].size();

    EXPECT_EQ(TextList(texts).size(), size);
    EXPECT_EQ(shared(texts).size(), size);
}

TEST(TextListTest, ConfigurationSharesTheValuesOfAKey)
{
    const SOME_IP_SD_Option_Configuration configuration(
        ConfigurationPairs{{"version", "1.0.0"}, {"category", "audio"}, {"version", "2.0.0"}});

    const TextList versions = configuration.shareAllValues("version");

    EXPECT_THAT(versions.texts(), ElementsAre("1.0.0", "2.0.0"));
    EXPECT_TRUE(share(versions, configuration.shareAllValues("version")));
    EXPECT_THAT(configuration.shareAllValues("category").texts(), ElementsAre("audio"));
    EXPECT_THAT(configuration.shareAllValues("other").texts(), IsEmpty());
}

TEST(TextListTest, SharedValuesOutliveTheirConfiguration)
{
    TextList versions;
    {
        const SOME_IP_SD_Option_Configuration configuration(ConfigurationPairs{{"version", "1.0.0"}});
        versions = configuration.shareAllValues("version");
    }

    EXPECT_THAT(versions.texts(), ElementsAre("1.0.0"));
}

TEST(TextListTest, ChangeOfADescriptionLeavesThoseThatShareItsTextsAsTheyWere)
{
    NuboServiceDescription description;
    description.shareVersions(shared({"1.0.0"}));
    description.shareCategories(shared({"audio"}));

    NuboServiceDescription copy = description;
    copy.addVersion("2.0.0");
    copy.addCategory("video");

    EXPECT_THAT(copy.getVersions(), ElementsAre("1.0.0", "2.0.0"));
    EXPECT_THAT(copy.getCategories(), ElementsAre("audio", "video"));
    EXPECT_THAT(description.getVersions(), ElementsAre("1.0.0"));
    EXPECT_THAT(description.getCategories(), ElementsAre("audio"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
