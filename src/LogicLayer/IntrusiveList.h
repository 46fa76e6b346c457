#pragma once

#include <cstddef>
#include <iterator>

namespace Nubo::ServiceDiscovery {

/// Links a node into one list.
template <class Node>
struct ListLink
{
    Node* previous = nullptr;
    Node* next = nullptr;
};

/// Intrusive doubly linked list; the caller owns the nodes. No operation allocates or throws. Not
/// thread-safe.
///
///     struct Entry { ListLink<Entry> inQueue; };
///     IntrusiveList<Entry, &Entry::inQueue> queue;
template <class Node, ListLink<Node> Node::*link>
class IntrusiveList
{
public:
    class Iterator
    {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Node;
        using difference_type = std::ptrdiff_t;
        using pointer = Node*;
        using reference = Node&;

        explicit Iterator(Node* node = nullptr) : m_node(node) {}

        Node& operator*() const { return *m_node; }
        Node* operator->() const { return m_node; }
        Iterator& operator++()
        {
            m_node = (m_node->*link).next;
            return *this;
        }
        const Iterator operator++(int)
        {
            const Iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const Iterator& other) const { return m_node == other.m_node; }
        bool operator!=(const Iterator& other) const { return m_node != other.m_node; }

    private:
        Node* m_node;
    };

    IntrusiveList() = default;
    IntrusiveList(const IntrusiveList&) = delete;
    IntrusiveList& operator=(const IntrusiveList&) = delete;

    Iterator begin() const { return Iterator(m_first); }
    Iterator end() const { return Iterator(); }
    bool empty() const { return m_first == nullptr; }
    Node* front() const { return m_first; }
    Node* back() const { return m_last; }
    static Node* next(const Node& node) { return (node.*link).next; }

    void pushBack(Node& node)
    {
        (node.*link).previous = m_last;
        (node.*link).next = nullptr;
        (m_last ? (m_last->*link).next : m_first) = &node;
        m_last = &node;
    }

    void erase(Node& node)
    {
        const ListLink<Node>& place = node.*link;
        (place.previous ? (place.previous->*link).next : m_first) = place.next;
        (place.next ? (place.next->*link).previous : m_last) = place.previous;
    }

    void moveToBack(Node& node)
    {
        if (!(node.*link).next)
            return;
        erase(node);
        pushBack(node);
    }

private:
    Node* m_first = nullptr;
    Node* m_last = nullptr;
};

}  // namespace Nubo::ServiceDiscovery
