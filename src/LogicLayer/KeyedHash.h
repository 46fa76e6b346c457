#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Nubo::ServiceDiscovery {

/// Hashes what neighbours choose, such as names, so that they cannot choose names that collide: SipHash-2-4
/// under a key that each process draws at random. Safe to use from any thread.
class KeyedHash
{
public:
    /// Draws the process's key unless that has been done. Throws Poco::SystemException when the system gives
    /// no random bytes.
    KeyedHash();

    std::uint64_t operator()(const void* bytes, std::size_t size) const;
    std::uint64_t operator()(std::string_view text) const { return (*this)(text.data(), text.size()); }

    using Key = std::array<unsigned char, 16>;

    /// SipHash-2-4 under that key.
    static std::uint64_t sipHash(const Key& key, const void* bytes, std::size_t size);

    using Function = std::uint64_t (*)(const void* bytes, std::size_t size);

    /// For tests: hashes with that function from now on, in the whole process; with the keyed one again for
    /// null. Nothing that has been hashed by another function may be looked up afterwards.
    static void plant(Function function);
};

}  // namespace Nubo::ServiceDiscovery
