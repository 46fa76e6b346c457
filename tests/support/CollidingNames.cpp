#include "support/CollidingNames.h"

#include <cstdint>
#include <cstring>
#include <random>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

// MurmurHash64A as libstdc++ has it for std::hash<std::string> on machines of 64 bits.
constexpr std::uint64_t seed = 0xc70f6907;
constexpr std::uint64_t factor = 0xc6a4a7935bd1e995;
constexpr std::size_t nameSize = 16;  // two blocks

/// Inverse of the odd `number` modulo 2^64.
constexpr std::uint64_t inverseOf(std::uint64_t number)
{
    std::uint64_t inverse = number;  // correct in the low three bits; each step doubles their number
    for (int i = 0; i < 5; ++i)
        inverse *= 2 - number * inverse;
    return inverse;
}

constexpr std::uint64_t unfactor = inverseOf(factor);

/// Its own inverse.
constexpr std::uint64_t mix(std::uint64_t value)
{
    return value ^ value >> 47;
}

constexpr std::uint64_t afterBlock(std::uint64_t hash, std::uint64_t block)
{
    return (hash ^ mix(block * factor) * factor) * factor;
}

/// The second block that makes the hash `wanted`.
constexpr std::uint64_t lastBlock(std::uint64_t afterFirst, std::uint64_t wanted)
{
    const std::uint64_t afterSecond = mix(mix(wanted) * unfactor);
    return mix((afterSecond * unfactor ^ afterFirst) * unfactor) * unfactor;
}

bool isPrintable(std::uint64_t block)
{
    for (int i = 0; i < 8; ++i, block >>= 8) {
        const std::uint64_t character = block & 0xff;
        if (character < 0x21 || character > 0x7e || character == '=')
            return false;
    }
    return true;
}

}  // namespace

std::vector<std::string> collidingNames(std::size_t count)
{
    constexpr std::uint64_t common = 0x5eed5;
    constexpr std::uint64_t start = seed ^ nameSize * factor;
    std::mt19937_64 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp) every run gets the same
    std::vector<std::string> names;
    names.reserve(count);
    char first[] = "Service\0";
    while (names.size() < count) {
        first[7] = static_cast<char>('a' + names.size() % 26);
        std::uint64_t block = 0;
        std::memcpy(&block, first, sizeof block);
        const std::uint64_t afterFirst = afterBlock(start, block);
        do
            block = lastBlock(afterFirst, random() << collidingBits | common);
        while (!isPrintable(block));
        std::string name(first, sizeof block);
        name.append(reinterpret_cast<const char*>(&block), sizeof block);
        names.push_back(name);
    }
    return names;
}

}  // namespace Nubo::ServiceDiscovery::Testing
