#pragma once

#include "terminal/LiveTable.h"
#include "unit/Signals.h"

#include <cstddef>
#include <memory>
#include <vector>

struct screen;  // of ncurses

namespace NuboSd {

/// The terminal at standard output: shows lines while this exists, and then again what it showed before.
class Screen
{
public:
    /// Whether standard output is a terminal on which lines can be drawn anywhere.
    static bool isPossible();

    /// `signals` are SIGWINCH and SIGTSTP. Throws std::runtime_error when the terminal cannot be used.
    explicit Screen(const Signals& signals);
    ~Screen();

    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    std::size_t width() const;
    std::size_t height() const;

    void draw(const std::vector<Line>& page);

    /// Readable when there is something for takeKeys().
    std::vector<int> descriptors() const;

    /// The keys since the last call. When the terminal wants the process to stop, it stops here.
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
