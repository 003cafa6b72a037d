/* The state again and again, on a terminal or into a file. */

#include "tpgctl.h"

#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

constexpr int PERIOD_MS = 2000;
/* The terminal's second screen without a cursor, and back; the upper left corner. */
constexpr char ENTER[] = "\033[?1049h\033[?25l";
constexpr char LEAVE[] = "\033[?25h\033[?1049l";
constexpr char HOME[] = "\033[H";
constexpr char CLEAR_LINE[] = "\033[K";
constexpr char CLEAR_REST[] = "\033[J";

static volatile sig_atomic_t stopped;

static void stop(int signal_no)
{
    (void)signal_no;
    stopped = 1;
}

/* A new size of the terminal ends the pause, no more. */
static void resized(int signal_no)
{
    (void)signal_no;
}

static void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = stop;
    for (const int signal_no : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signal_no, &action, nullptr);
    }
    action.sa_handler = resized;
    sigaction(SIGWINCH, &action, nullptr);
}

/* As much of the text as the screen holds. */
static std::string fitted(const std::string& text)
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        size.ws_col = 120;
        size.ws_row = 40;
    }
    std::string shown = HOME;
    size_t begin = 0;
    for (unsigned row = 1; begin < text.size() && row < size.ws_row; row++) {
        const size_t end = text.find('\n', begin);
        shown += text.substr(begin, end - begin).substr(0, size.ws_col) + CLEAR_LINE + "\r\n";
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return shown + CLEAR_REST;
}

/* True when a key that ends it was pressed. */
static bool pause_ended(bool keys)
{
    pollfd input = {keys ? STDIN_FILENO : -1, POLLIN, 0};
    if (poll(&input, 1, PERIOD_MS) != 1) {
        return stopped != 0;
    }
    char key = 0;
    return read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || stopped != 0;
}

static void show_until_stopped(bool json, bool screen, bool keys)
{
    do {
        std::string text;
        ctl_status(json, &text);
        fputs(screen ? fitted(text).c_str() : text.c_str(), stdout);
    } while (fflush(stdout) == 0 && stopped == 0 && !pause_ended(keys));
}

int ctl_watch(bool json)
{
    catch_signals();
    const bool screen = !json && isatty(STDOUT_FILENO) != 0;
    termios before = {};
    const bool keys = screen && tcgetattr(STDIN_FILENO, &before) == 0;
    if (keys) {
        termios raw = before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    if (screen) {
        fputs(ENTER, stdout);
    }
    show_until_stopped(json, screen, keys);
    if (screen) {
        fputs(LEAVE, stdout);
        fflush(stdout);
    }
    if (keys) {
        tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
    return EXIT_DONE;
}
