#pragma once

#include "terminal/LiveTable.h"
#include "unit/Signals.h"

#include <cstddef>
#include <memory>
#include <vector>

struct screen;  // of ncurses

namespace NuboSd {

/// Shows lines on the terminal at standard output. The destructor restores what it showed before.
class Screen
{
public:
    /// Whether standard output is a terminal that can move its cursor.
    static bool isPossible();

    /// `signals` are SIGWINCH and SIGTSTP. Throws std::runtime_error when the terminal cannot be used.
    explicit Screen(const Signals& signals);
    ~Screen();

    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    std::size_t width() const;
    std::size_t height() const;

    void draw(const std::vector<Line>& page);

    /// Readable when takeKeys() has something to do.
    std::vector<int> descriptors() const;

    /// The keys since the last call. Also stops the process here when the terminal demands it (SIGTSTP).
    std::vector<Key> takeKeys();

private:
    struct Closer
    {
        void operator()(screen* handle) const;
    };

    const Signals& m_signals;
    const std::unique_ptr<screen, Closer> m_screen;
    const bool m_hasKeys;
};

}  // namespace NuboSd
