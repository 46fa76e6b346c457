#include "LogicLayer/KeyedHash.h"
#include "support/CollidingNames.h"
#include "support/PlantedHash.h"
#include "support/Wire.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <numeric>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

std::uint64_t sizeAsHash(const void* /*bytes*/, std::size_t size)
{
    return size;
}

/// SipHash under a public key.
std::uint64_t knownKeyHash(const void* bytes, std::size_t size)
{
    return KeyedHash::sipHash(KeyedHash::Key{}, bytes, size);
}

std::string hexOf(std::uint64_t hash)
{
    return "hash " + toHex(&hash, sizeof hash);
}

/// Largest number of names that share one of the buckets.
template <class Hash>
std::size_t longestChain(const std::vector<std::string>& names, std::size_t buckets, Hash hash)
{
    std::vector<std::size_t> chains(buckets);
    for (const std::string& name : names)
        ++chains[hash(name) % buckets];
    return *std::max_element(chains.begin(), chains.end());
}

/// Names that share one of the buckets under that hash.
std::vector<std::string> namesInOneBucket(std::size_t count, std::size_t buckets, const KeyedHash& hash)
{
    std::vector<std::string> names;
    for (std::size_t i = 0; names.size() < count; ++i) {
        std::string name = "Service" + std::to_string(i);
        if (hash(name) % buckets == 0)
            names.push_back(std::move(name));
    }
    return names;
}

}  // namespace

/// The authors' vectors: under the key 00 01 … 0f, the hash of 00 01 02 … of each length.
TEST(KeyedHashTest, PublishedVectorsOfSipHashHold)
{
    struct Vector
    {
        std::size_t size;
        std::uint64_t hash;
    };
    KeyedHash::Key key{};
    std::iota(key.begin(), key.end(), static_cast<unsigned char>(0));
    std::array<unsigned char, 63> message{};
    std::iota(message.begin(), message.end(), static_cast<unsigned char>(0));

    for (const Vector& vector : std::array<Vector, 11>{{{0, 0x726fdb47dd0e0e31},
                                                        {1, 0x74f839c593dc67fd},
                                                        {2, 0x0d6c8009d9a94f5a},
                                                        {3, 0x85676696d7fb7e2d},
                                                        {4, 0xcf2794e0277187b7},
                                                        {5, 0x18765564cd99a68d},
                                                        {6, 0xcbc9466e58fee3ce},
                                                        {7, 0xab0200f58b01d137},
                                                        {8, 0x93f5f5799a932462},
                                                        {15, 0xa129ca6149be45e5},
                                                        {63, 0x958a324ceb064572}}})
        EXPECT_EQ(KeyedHash::sipHash(key, message.data(), vector.size), vector.hash)
            << "of " << vector.size << " bytes";
}

TEST(KeyedHashTest, EqualBytesHaveTheSameHashWithinAProcess)
{
    const std::string name = "Media";

    EXPECT_EQ(KeyedHash()(name), KeyedHash()(std::string_view("Media ", 5)));
    EXPECT_EQ(KeyedHash()(name), KeyedHash()(name.data(), name.size()));
}

TEST(KeyedHashTest, EveryByteAndTheLengthCount)
{
    const KeyedHash hash;
    std::set<std::uint64_t> hashes;

    for (std::size_t size = 0; size <= 64; ++size) {
        std::string text(size, '\0');
        hashes.insert(hash(text));
        for (char& byte : text) {
            for (int bit = 0; bit < 8; ++bit) {
                byte = static_cast<char>(1 << bit);
                hashes.insert(hash(text));
            }
            byte = 0;
        }
    }

    EXPECT_THAT(hashes, SizeIs(65 + 8 * 64 * 65 / 2));
}

TEST(KeyedHashTest, EveryBitOfAHashIsSetForHalfOfTheNames)
{
    constexpr int names = 10000;
    const KeyedHash hash;
    std::array<int, 64> set{};

    for (int i = 0; i < names; ++i) {
        const std::uint64_t value = hash("Service" + std::to_string(i));
        for (std::size_t bit = 0; bit < set.size(); ++bit)
            set[bit] += static_cast<int>(value >> bit & 1);
    }

    for (std::size_t bit = 0; bit < set.size(); ++bit)
        EXPECT_NEAR(set[bit], names / 2.0, names / 20.0) << "bit " << bit;
}

TEST(KeyedHashTest, HashesDifferFromProcessToProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // starts the program anew
    const std::string here = hexOf(KeyedHash()("Media"));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EXIT((std::cerr << hexOf(KeyedHash()("Media")), std::exit(EXIT_SUCCESS)),
                    ExitedWithCode(EXIT_SUCCESS), AllOf(HasSubstr("hash "), Not(HasSubstr(here))));
    }
}

TEST(KeyedHashTest, KeyIsNotTheOneThatNothingWasDrawnInto)
{
    EXPECT_NE(KeyedHash()("Media"), knownKeyHash("Media", 5));
}

TEST(KeyedHashTest, PlantedFunctionIsUsedUntilItIsTakenBack)
{
    const KeyedHash hash;
    const std::uint64_t keyed = hash("Media");
    {
        const PlantedHash planted(sizeAsHash);

        EXPECT_EQ(hash("Media"), 5u);
        EXPECT_EQ(KeyedHash()("Navi"), 4u);
    }
    EXPECT_EQ(hash("Media"), keyed);
}

TEST(KeyedHashTest, NamesChosenToCollideForTheStandardHashAreSpread)
{
    constexpr std::size_t buckets = std::size_t{1} << 14;
    const std::vector<std::string> names = collidingNames(9000);
    ASSERT_THAT(std::set<std::string>(names.begin(), names.end()), SizeIs(names.size()));
#if defined(__GLIBCXX__) && defined(__x86_64__)
    ASSERT_EQ(longestChain(names, std::size_t{1} << collidingBits, std::hash<std::string>()), names.size());
#endif

    EXPECT_LE(longestChain(names, buckets, KeyedHash()), 10u);
}

TEST(KeyedHashTest, NamesChosenToCollideUnderOneKeyAreSpreadUnderAnother)
{
    constexpr std::size_t buckets = 1024;
    const KeyedHash hash;
    std::vector<std::string> names;
    {
        const PlantedHash planted(knownKeyHash);
        names = namesInOneBucket(buckets, buckets, hash);
        ASSERT_EQ(longestChain(names, buckets, hash), names.size());
    }

    EXPECT_LE(longestChain(names, buckets, hash), 12u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
