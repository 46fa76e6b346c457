#include "terminal/Screen.h"

#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define NCURSES_NOMACROS
#include <ncurses.h>
#include <term.h>

namespace NuboSd {

namespace {

int attributesOf(Line::Style style)
{
    switch (style) {
        case Line::Style::Heading:
            return A_REVERSE;
        case Line::Style::Faint:
            return A_DIM;
        case Line::Style::Normal:
            break;
    }
    return A_NORMAL;
}

std::optional<Key> keyOf(int code)
{
    constexpr int controlL = 'L' & 0x1f;
    switch (code) {
        case KEY_UP:
            return Key::Up;
        case KEY_DOWN:
            return Key::Down;
        case KEY_PPAGE:
            return Key::PageUp;
        case KEY_NPAGE:
            return Key::PageDown;
        case KEY_HOME:
            return Key::Home;
        case KEY_END:
            return Key::End;
        case 'q':
            return Key::Quit;
        case controlL:
            ::clearok(::curscr, true);
            return Key::Redraw;
        default:
            return std::nullopt;
    }
}

void takeSize()
{
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0)
        ::resizeterm(size.ws_row, size.ws_col);
}

/// Stops the process, as SIGTSTP does without the screen, until it is continued.
void stop()
{
    ::endwin();
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTSTP);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    static_cast<void>(::raise(SIGTSTP));
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool isReadable(int descriptor)
{
    pollfd polled{descriptor, POLLIN, 0};
    return ::poll(&polled, 1, 0) > 0;
}

}  // namespace

bool Screen::isPossible()
{
    int result = 0;
    if (::isatty(STDOUT_FILENO) == 0 || ::setupterm(nullptr, STDOUT_FILENO, &result) != OK)
        return false;
    const char* const moveCursor = ::tigetstr("cup");
    const bool isPossible = moveCursor && reinterpret_cast<std::intptr_t>(moveCursor) != -1;
    ::del_curterm(::set_curterm(nullptr));
    return isPossible;
}

void Screen::Closer::operator()(screen* handle) const
{
    ::endwin();
    ::delscreen(handle);
}

Screen::Screen(const Signals& signals)
    : m_signals(signals)
    , m_screen(::newterm(nullptr, stdout, stdin))
    , m_hasKeys(::isatty(STDIN_FILENO) != 0)
{
    if (!m_screen)
        throw std::runtime_error("the terminal cannot be used");
    static_cast<void>(::signal(SIGTSTP, SIG_DFL));  // the handler of ncurses draws on any thread
    ::cbreak();
    ::noecho();
    ::curs_set(0);
    ::nodelay(::stdscr, true);
    ::keypad(::stdscr, true);
    constexpr int escapeDelay = 25;  // milliseconds; the bytes of a key arrive together
    ::set_escdelay(escapeDelay);
    takeSize();
}

Screen::~Screen() = default;

std::size_t Screen::width() const
{
    return static_cast<std::size_t>(::getmaxx(::stdscr));
}

std::size_t Screen::height() const
{
    return static_cast<std::size_t>(::getmaxy(::stdscr));
}

void Screen::draw(const std::vector<Line>& page)
{
    ::erase();
    int row = 0;
    for (const Line& line : page) {
        ::attrset(attributesOf(line.style));
        ::mvaddstr(row++, 0, line.text.c_str());
    }
    ::refresh();
}

std::vector<int> Screen::descriptors() const
{
    std::vector<int> result{m_signals.descriptor()};
    if (m_hasKeys)
        result.push_back(STDIN_FILENO);
    return result;
}

std::vector<Key> Screen::takeKeys()
{
    std::vector<Key> keys;
    while (const std::optional<int> signal = m_signals.take()) {
        if (*signal == SIGTSTP)
            stop();
        takeSize();
        keys.push_back(Key::Redraw);
    }
    if (!m_hasKeys || !isReadable(STDIN_FILENO))
        return keys;
    int code = ::getch();
    if (code == ERR)
        keys.push_back(Key::Quit);  // readable, but nothing to read: the terminal is gone
    for (; code != ERR; code = ::getch()) {
        if (const std::optional<Key> key = keyOf(code))
            keys.push_back(*key);
    }
    return keys;
}

}  // namespace NuboSd
