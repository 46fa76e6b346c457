#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Nubo::ServiceDiscovery {

/// Hashes data that neighbours choose, such as names, with SipHash-2-4 under a random key per process, so
/// that neighbours cannot construct collisions. Thread-safe.
class KeyedHash
{
public:
    /// Draws the process's key on first use. Throws Poco::SystemException when the system provides no random
    /// bytes.
    KeyedHash();

    std::uint64_t operator()(const void* bytes, std::size_t size) const;
    std::uint64_t operator()(std::string_view text) const { return (*this)(text.data(), text.size()); }

    using Key = std::array<unsigned char, 16>;

    /// Computes SipHash-2-4 under the given key.
    static std::uint64_t sipHash(const Key& key, const void* bytes, std::size_t size);

    using Function = std::uint64_t (*)(const void* bytes, std::size_t size);

    /// For tests: replaces the hash function in the whole process; null restores the keyed one. Entries that
    /// were hashed with another function must not be looked up afterwards.
    static void plant(Function function);
};

}  // namespace Nubo::ServiceDiscovery
