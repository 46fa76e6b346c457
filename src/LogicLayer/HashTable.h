#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <new>

namespace Nubo::ServiceDiscovery {

/// Links a node into one table and keeps the hash of its key.
template <class Node>
struct HashLink
{
    Node* next = nullptr;
    Node** toThis = nullptr;
    std::uint64_t hash = 0;
};

/// Intrusive hash table; the caller owns the nodes. It grows by one bucket at a time and shrinks by two at
/// most, so that no insertion or removal has to rehash the whole table (linear hashing, Litwin 1980). The
/// number of buckets depends on the number of nodes only, not on their hashes. Insertion and removal do not
/// throw: without memory for a new bucket, the table keeps those it has. Not thread-safe.
template <class Node, HashLink<Node> Node::*link>
class HashTable
{
public:
    HashTable() : m_buckets(fewestBuckets, nullptr) {}
    HashTable(const HashTable&) = delete;
    HashTable& operator=(const HashTable&) = delete;

    std::size_t size() const { return m_size; }
    std::size_t buckets() const { return m_buckets.size(); }

    void insert(Node& node, std::uint64_t hash)
    {
        (node.*link).hash = hash;
        push(m_buckets[bucketOf(hash)], node);
        ++m_size;
        if (m_size > m_buckets.size())
            splitBucket();
    }

    void erase(Node& node)
    {
        HashLink<Node>& place = node.*link;
        *place.toThis = place.next;
        if (place.next)
            (place.next->*link).toThis = place.toThis;
        --m_size;
        for (int i = 0; i < 2 && m_buckets.size() > fewestBuckets && m_size < m_buckets.size() / 2; ++i)
            mergeBucket();
    }

    /// Calls `visit` with each node of that hash. Keys can collide; `visit` must compare them.
    template <class Visit>
    void visit(std::uint64_t hash, Visit visit) const
    {
        for (Node* node = m_buckets[bucketOf(hash)]; node; node = (node->*link).next) {
            if ((node->*link).hash == hash)
                visit(*node);
        }
    }

    /// Returns the first node of that hash for which the predicate holds, or null.
    template <class Predicate>
    Node* find(std::uint64_t hash, Predicate predicate) const
    {
        for (Node* node = m_buckets[bucketOf(hash)]; node; node = (node->*link).next) {
            if ((node->*link).hash == hash && predicate(*node))
                return node;
        }
        return nullptr;
    }

private:
    static constexpr std::size_t fewestBuckets = 8;  // a power of two

    /// Buckets are split in order. Until a bucket of the upper half exists, its partner in the lower half
    /// holds its nodes.
    std::size_t bucketOf(std::uint64_t hash) const
    {
        const std::size_t bucket = hash & m_mask;
        return bucket < m_buckets.size() ? bucket : bucket & m_mask >> 1;
    }

    static void push(Node*& bucket, Node& node)
    {
        HashLink<Node>& place = node.*link;
        place.next = bucket;
        place.toThis = &bucket;
        if (bucket)
            (bucket->*link).toThis = &place.next;
        bucket = &node;
    }

    void splitBucket()
    {
        const std::size_t added = m_buckets.size();
        try {
            m_buckets.push_back(nullptr);
        }
        catch (const std::bad_alloc&) {
            return;
        }
        if (added > m_mask)
            m_mask = m_mask << 1 | 1;
        Node* node = m_buckets[added & m_mask >> 1];
        m_buckets[added & m_mask >> 1] = nullptr;
        while (node) {
            Node* const next = (node->*link).next;
            push(m_buckets[bucketOf((node->*link).hash)], *node);
            node = next;
        }
    }

    void mergeBucket()
    {
        Node* node = m_buckets.back();
        m_buckets.pop_back();
        if (m_buckets.size() <= m_mask >> 1)
            m_mask >>= 1;
        while (node) {
            Node* const next = (node->*link).next;
            push(m_buckets[bucketOf((node->*link).hash)], *node);
            node = next;
        }
    }

    std::deque<Node*> m_buckets;  // push_back keeps elements in place: HashLink::toThis points to them
    std::size_t m_mask = fewestBuckets - 1;
    std::size_t m_size = 0;
};

}  // namespace Nubo::ServiceDiscovery
