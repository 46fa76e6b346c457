#include "terminal/LiveTable.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <ServiceDiscovery.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace NuboSd::Testing {

using namespace std::chrono_literals;
using Nubo::ServiceDiscovery::OptionL4Protocol;
using Nubo::ServiceDiscovery::ServiceStatus;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

ServiceStatus discovered(const std::string& name, unsigned short instance = 1,
                         std::optional<unsigned> secondsLeft = 120)
{
    ServiceStatus service;
    service.description.setName(name);
    service.description.addVersion("1.2.0");
    service.description.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    service.description.setPort(8080);
    service.description.setLocalUuid(name + std::to_string(instance));
    service.instanceId = instance;
    service.secondsLeft = secondsLeft;
    return service;
}

ServiceStatus announced(const std::string& name)
{
    ServiceStatus service = discovered(name, 1, std::nullopt);
    service.role = ServiceStatus::Role::ANNOUNCED;
    return service;
}

std::vector<ServiceStatus> many(int count)
{
    std::vector<ServiceStatus> services;
    for (int i = 0; i < count; ++i)
        services.push_back(discovered("Service" + std::to_string(1000 + i)));
    return services;
}

std::vector<std::string> texts(const std::vector<Line>& lines)
{
    std::vector<std::string> result;
    for (const Line& line : lines)
        result.push_back(line.text);
    return result;
}

struct LiveTableTest : ::testing::Test
{
    void update(const std::vector<ServiceStatus>& services) { table.update(services, now); }

    std::vector<std::string> page(std::size_t width = 80, std::size_t height = 24)
    {
        return texts(table.page(width, height, "note"));
    }
    /// The names on a page of five rows.
    std::vector<std::string> names()
    {
        std::vector<std::string> result = page(80, 8);
        result = {result.begin() + 2, result.end() - 1};
        for (std::string& line : result)
            line.resize(std::min(line.find(' '), line.size()));
        return result;
    }
    std::string row(std::size_t number = 0) { return texts(table.all(80)).at(2 + number); }

    LiveTable table{"unit fd00::2"};
    LiveTable::Clock::time_point now{1000h};
};

}  // namespace

TEST_F(LiveTableTest, PageHasSummaryHeadingsServicesAndNote)
{
    ServiceStatus own = announced("Navi");
    own.description.setL4Proto(OptionL4Protocol::UDP);
    own.description.addVersion("~1.3.0");
    update({own, discovered("Media", 2, 118)});

    EXPECT_THAT(
        page(70, 6),
        ElementsAre("unit fd00::2: 1 discovered, 1 announced",
                    "NAME   ENDPOINT            TTL      AGE      INSTANCE  VERSIONS       ",
                    "Media  tcp [fd00::1]:8080  118 s    0 s      2         1.2.0",
                    "Navi   udp [fd00::1]:8080  own      0 s      1         1.2.0,~1.3.0", "", "note"));
}

TEST_F(LiveTableTest, HeadingsAreSetOffAndFillTheLine)
{
    update({discovered("Media")});

    const std::vector<Line> lines = table.page(80, 24, "");

    EXPECT_EQ(lines[1].style, Line::Style::Heading);
    EXPECT_THAT(lines[1].text, SizeIs(80));
    EXPECT_EQ(lines[2].style, Line::Style::Normal);
}

TEST_F(LiveTableTest, WithoutServicesThereAreHeadingsAllTheSame)
{
    update({});

    EXPECT_THAT(page(40, 4), ElementsAre("unit fd00::2: 0 discovered, 0 announced",
                                         "NAME  ENDPOINT  TTL      AGE      INSTA>", "", "note"));
}

TEST_F(LiveTableTest, ServicesAreSortedByNameAndThenByInstance)
{
    update({discovered("Radio"), discovered("Media", 10), discovered("Navi"), discovered("Media", 9)});

    EXPECT_THAT(names(), ElementsAre("Media", "Media", "Navi", "Radio", ""));
    EXPECT_THAT(row(0), HasSubstr(" 9 "));
    EXPECT_THAT(row(1), HasSubstr(" 10 "));
}

TEST_F(LiveTableTest, AgeIsTheTimeSinceTheServiceWasSeenFirst)
{
    update({discovered("Media")});
    now += 12s;
    update({discovered("Media"), discovered("Navi")});

    EXPECT_THAT(row(0), HasSubstr(" 12 s "));
    EXPECT_THAT(row(1), HasSubstr(" 0 s "));
}

TEST_F(LiveTableTest, TimesAreToldInTheLargestUnitOfWhichThereAreThree)
{
    const auto ttl = [&](unsigned seconds) {
        update({discovered("Media", 1, seconds)});
        const std::string column = row().substr(row().find("8080  ") + 6);
        return column.substr(0, column.find("  "));
    };

    EXPECT_EQ(ttl(179), "179 s");
    EXPECT_EQ(ttl(180), "3 min");
    EXPECT_EQ(ttl(3 * 3600 - 1), "179 min");
    EXPECT_EQ(ttl(3 * 3600), "3 h");
    EXPECT_EQ(ttl(72 * 3600 - 1), "71 h");
    EXPECT_EQ(ttl(0xffffff), "194 d");
}

TEST_F(LiveTableTest, ServiceThatIsGoneStaysForSomeSecondsMarked)
{
    update({discovered("Media"), discovered("Navi")});
    now += 4s;
    update({discovered("Navi")});

    EXPECT_THAT(row(0), StartsWith("Media  tcp [fd00::1]:8080  gone     0 s "));
    EXPECT_EQ(table.page(80, 24, "")[2].style, Line::Style::Faint);
    EXPECT_THAT(page().front(), HasSubstr(": 1 discovered, 0 announced"));

    now += 1s;
    update({discovered("Navi")});
    EXPECT_THAT(names(), ElementsAre("Navi", "", "", "", ""));
}

TEST_F(LiveTableTest, TextsFromTheNetworkAreEscaped)
{
    ServiceStatus service = discovered("\x1b[31m\xc3\xa4\n");
    service.description.setVersions({"\x07"});
    update({service});

    EXPECT_THAT(row(), StartsWith("\\x1b[31m\\xc3\\xa4\\x0a  tcp"));
    EXPECT_THAT(row(), HasSubstr("\\x07"));
}

TEST_F(LiveTableTest, LongNameLeavesRoomForTheOtherColumns)
{
    ServiceStatus service = discovered(std::string(200, 'x'));
    service.description.setIpAddress(Poco::Net::IPAddress("fd00:1111:2222:3333:4444:5555:6666:7777"));
    service.description.setPort(65535);
    update({service, discovered("Media")});

    const std::string endpoint = "  tcp [fd00:1111:2222:3333:4444:5555:6666:7777]:65535  ";
    EXPECT_EQ(page(80)[3], std::string(11, 'x') + ">" + endpoint + "120 s    0 s>");
    EXPECT_EQ(page(120)[3], std::string(28, 'x') + ">" + endpoint + "120 s    0 s      1         1.2.0");
}

TEST_F(LiveTableTest, NoLineIsWiderAndNoPageHigherThanTheScreen)
{
    update(many(50));

    for (std::size_t width = 0; width < 100; ++width) {
        for (std::size_t height = 0; height < 30; ++height) {
            EXPECT_THAT(page(width, height), SizeIs(height));
            EXPECT_THAT(page(width, height), Each(SizeIs(::testing::Le(width))));
        }
    }
}

TEST_F(LiveTableTest, LowScreenStillHasTheNote)
{
    update(many(50));

    EXPECT_THAT(page(80, 1), ElementsAre("note"));
    EXPECT_THAT(page(80, 3),
                ElementsAre("unit fd00::2: 50 discovered, 0 announced", StartsWith("NAME"), "note"));
}

TEST_F(LiveTableTest, KeysMoveThePageWithinTheServices)
{
    update(many(12));
    EXPECT_EQ(names().front(), "Service1000");
    EXPECT_THAT(page(80, 8).front(), HasSubstr(", rows 1 to 5 of 12"));

    const auto firstAfter = [&](Key key) {
        table.scroll(key);
        return names().front();
    };
    EXPECT_EQ(firstAfter(Key::Up), "Service1000");
    EXPECT_EQ(firstAfter(Key::Down), "Service1001");
    EXPECT_EQ(firstAfter(Key::PageDown), "Service1006");
    EXPECT_EQ(firstAfter(Key::Redraw), "Service1006");
    EXPECT_EQ(firstAfter(Key::PageDown), "Service1007") << "the last page is a full one";
    EXPECT_EQ(firstAfter(Key::Down), "Service1007");
    EXPECT_EQ(firstAfter(Key::Up), "Service1006");
    EXPECT_EQ(firstAfter(Key::PageUp), "Service1001");
    EXPECT_EQ(firstAfter(Key::End), "Service1007");
    EXPECT_THAT(page(80, 8).front(), HasSubstr(", rows 8 to 12 of 12"));
    EXPECT_EQ(firstAfter(Key::Home), "Service1000");
}

TEST_F(LiveTableTest, PageStaysFullWhenTheScreenGrowsOrServicesGo)
{
    update(many(12));
    table.scroll(Key::End);
    EXPECT_EQ(names().front(), "Service1007");

    EXPECT_THAT(page(80, 24).front(), Not(HasSubstr("rows")));
    table.scroll(Key::End);
    names();
    now += 10s;
    update(many(3));
    EXPECT_THAT(names(), ElementsAre("Service1000", "Service1001", "Service1002", "", ""));
}

TEST_F(LiveTableTest, AllOfItHasEveryService)
{
    update(many(100));

    EXPECT_THAT(table.all(80), SizeIs(102));
    EXPECT_THAT(table.all(80).front().text, Not(HasSubstr("rows")));
}

}  // namespace NuboSd::Testing
