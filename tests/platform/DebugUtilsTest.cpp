#include <KELUtilLib/DebugUtils.h>

#include <algorithm>
#include <fstream>
#include <ostream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// The name of a new thread after it was named so.
std::string nameAfter(const char* name)
{
    std::string result;
    std::thread([&] {
        DebugUtils::setThreadName(name, "test");
        std::getline(std::ifstream("/proc/thread-self/comm"), result);
    }).join();
    return result;
}

struct Dump
{
    const char* name;
    unsigned short size;  ///< of the bytes 0xf0, 0xf1, …
    unsigned char groupSize;
    const char* text;

    friend std::ostream& operator<<(std::ostream& stream, const Dump& row) { return stream << row.text; }
};

struct HexDumpTest : ::testing::TestWithParam<Dump>
{};

}  // namespace

TEST(ThreadNameTest, IsWhatTheKernelShows)
{
    EXPECT_EQ(nameAfter("SdReqHdlr"), "SdReqHdlr");
}

TEST(ThreadNameTest, IsCutToFifteenBytes)
{
    EXPECT_EQ(nameAfter("exactly15bytes!"), "exactly15bytes!");
    EXPECT_EQ(nameAfter("sixteen bytes ..x"), "sixteen bytes .");
}

TEST(ThreadNameTest, LeavesOtherThreadsAlone)
{
    std::string before;
    std::getline(std::ifstream("/proc/thread-self/comm"), before);

    nameAfter("other");

    std::string after;
    std::getline(std::ifstream("/proc/thread-self/comm"), after);
    EXPECT_EQ(after, before);
}

TEST_P(HexDumpTest, GroupsBytesAndParts16ByteLines)
{
    std::string bytes;
    for (unsigned i = 0; i < GetParam().size; ++i)
        bytes += static_cast<char>(0xf0 + i);

    EXPECT_EQ(DebugUtils::HexDump(bytes.data(), GetParam().size, GetParam().groupSize), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, HexDumpTest,
    ::testing::Values(Dump{"Empty", 0, 4, ""}, Dump{"OneByte", 1, 4, "f0"},
                      Dump{"OneGroup", 4, 4, "f0f1f2f3"}, Dump{"CutGroup", 6, 4, "f0f1f2f3 f4f5"},
                      Dump{"OneLine", 16, 4, "f0f1f2f3 f4f5f6f7 f8f9fafb fcfdfeff"},
                      Dump{"TwoLines", 17, 4, "f0f1f2f3 f4f5f6f7 f8f9fafb fcfdfeff\n00"},
                      Dump{"GroupsOfOne", 3, 1, "f0 f1 f2"}, Dump{"ZeroCountsAsOne", 3, 0, "f0 f1 f2"},
                      Dump{"GroupsOfThree", 17, 3, "f0f1f2 f3f4f5 f6f7f8 f9fafb fcfdfe\nff00"},
                      Dump{"GroupLargerThanALine", 18, 17, "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff00\n01"}),
    [](const auto& row) { return row.param.name; });

TEST(HexDumpSizeTest, LargestSizeIsDumpedWhole)
{
    const std::string bytes(65535, '\x5a');

    const std::string text = DebugUtils::HexDump(bytes.data(), 65535, 4);

    EXPECT_EQ(static_cast<std::size_t>(std::count(text.begin(), text.end(), '5')), bytes.size());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 65535 / 16);
}

}  // namespace Nubo::ServiceDiscovery::Testing
