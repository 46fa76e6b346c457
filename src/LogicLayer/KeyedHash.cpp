#include "LogicLayer/KeyedHash.h"

#include <Poco/Exception.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <tuple>

#include <sodium/crypto_shorthash.h>
#include <sys/random.h>

namespace Nubo::ServiceDiscovery {

namespace {

std::atomic<KeyedHash::Function> planted{nullptr};

KeyedHash::Key drawKey()
{
    KeyedHash::Key key;
    std::size_t drawn = 0;
    while (drawn < key.size()) {
        const ssize_t count = ::getrandom(key.data() + drawn, key.size() - drawn, 0);
        if (count > 0)
            drawn += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            throw Poco::SystemException("cannot draw the key of the hash: getrandom", errno);
    }
    return key;
}

const KeyedHash::Key& processKey()
{
    static const KeyedHash::Key key = drawKey();
    return key;
}

}  // namespace

KeyedHash::KeyedHash()
{
    processKey();
}

std::uint64_t KeyedHash::operator()(const void* bytes, std::size_t size) const
{
    if (const Function function = planted.load(std::memory_order_relaxed))
        return function(bytes, size);
    return sipHash(processKey(), bytes, size);
}

// Aumasson, Bernstein, "SipHash: a fast short-input PRF", 2012. The result is a little-endian number.
std::uint64_t KeyedHash::sipHash(const Key& key, const void* bytes, std::size_t size)
{
    static_assert(std::tuple_size<Key>::value == crypto_shorthash_siphash24_KEYBYTES);
    std::array<unsigned char, crypto_shorthash_siphash24_BYTES> hash;
    crypto_shorthash_siphash24(hash.data(), static_cast<const unsigned char*>(bytes), size, key.data());
    std::uint64_t result = 0;
    for (std::size_t i = hash.size(); i-- > 0;)
        result = result << 8 | hash[i];
    return result;
}

void KeyedHash::plant(Function function)
{
    planted = function;
}

}  // namespace Nubo::ServiceDiscovery
