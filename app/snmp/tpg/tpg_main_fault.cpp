/* A genuine fault: a line in the log, then the end. */

#include "tpg_main_fault.h"

#include "tpg_log.h"
#include "tpg_main_socket.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

static void fault_handler(int, siginfo_t*, void*);
static bool sent_by_someone(const siginfo_t*);
static void leave_line(int);
static int open_syslog();

constexpr char SYSLOG_PATH[] = "/dev/log";
constexpr int FAULT_SIGNALS[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
constexpr size_t FAULT_STACK = size_t{64} * 1024;

/* The handlers from before, by the position of the signal; a signal handler may read such data. */
static struct sigaction previous[std::size(FAULT_SIGNALS)];
static int syslog_fd = -1;
alignas(16) static uint8_t fault_stack[FAULT_STACK];

void tpg_fault_handler_install()
{
    syslog_fd = open_syslog();
    stack_t stack = {};
    stack.ss_sp = fault_stack;
    stack.ss_size = sizeof(fault_stack);
    sigaltstack(&stack, nullptr); /* a fault may be the end of the stack */
    struct sigaction action = {};
    action.sa_sigaction = fault_handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < std::size(FAULT_SIGNALS); i++) {
        sigaction(FAULT_SIGNALS[i], &action, &previous[i]);
    }
}

/* syslog() may not be called from the handler: it writes to this socket itself. */
static int open_syslog()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, SYSLOG_PATH, sizeof(SYSLOG_PATH));
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static bool sent_by_someone(const siginfo_t* info)
{
    return info->si_code == SI_USER || info->si_code == SI_TKILL || info->si_code == SI_QUEUE;
}

static void fault_handler(int sig, siginfo_t* info, void* context)
{
    const int error = errno;
    struct sigaction before = {};
    before.sa_handler = SIG_DFL;
    for (size_t i = 0; i < std::size(FAULT_SIGNALS); i++) {
        if (FAULT_SIGNALS[i] == sig) {
            before = previous[i];
        }
    }
    if (!sent_by_someone(info)) {
        tpg_socket_remove(tpg_socket::cards);
        tpg_socket_remove(tpg_socket::operators);
        leave_line(sig);
        before.sa_handler = SIG_DFL;
    }
    if ((before.sa_flags & SA_SIGINFO) != 0 && sent_by_someone(info)) {
        before.sa_sigaction(sig, info, context);
    } else if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) {
        before.sa_handler(sig);
    } else if (before.sa_handler == SIG_DFL) {
        signal(sig, SIG_DFL); /* the instruction runs again, or the signal is raised again */
        if (sent_by_someone(info)) {
            raise(sig);
        }
    }
    errno = error;
}

/* Appends text to a line of the given length; returns the new length. */
static size_t append(char* line, size_t size, size_t length, const char* text)
{
    while (*text != '\0' && length + 1 < size) {
        line[length++] = *text++;
    }
    return length;
}

static size_t append_number(char* line, size_t size, size_t length, int number)
{
    char digits[12];
    size_t place = sizeof(digits) - 1;
    digits[place] = '\0';
    do {
        digits[--place] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number > 0 && place > 0);
    return append(line, size, length, digits + place);
}

/* The agent's own form of an Error line, built with nothing but what a handler may call. */
static void leave_line(int sig)
{
    char line[160];
    size_t length = append(line, sizeof(line), 0, "crashed with signal ");
    length = append_number(line, sizeof(line), length, sig);
    char out[256];
    size_t out_len = append(out, sizeof(out), 0, "|Error (tpg:");
    out_len = append_number(out, sizeof(out), out_len, getpid());
    out_len = append(out, sizeof(out), out_len, ")|tpg_main_fault.cpp: ");
    line[length] = '\0';
    out_len = append(out, sizeof(out), out_len, line);
    out_len = append(out, sizeof(out), out_len, "\n");
    if (write(STDERR_FILENO, out, out_len) < 0) {
        /* nobody to tell */
    }
    if (syslog_fd >= 0) {
        size_t log_len = append(out, sizeof(out), 0, "<11>tpg["); /* user facility, error */
        log_len = append_number(out, sizeof(out), log_len, getpid());
        log_len = append(out, sizeof(out), log_len, "]: tpg_main_fault.cpp: ");
        log_len = append(out, sizeof(out), log_len, line);
        send(syslog_fd, out, log_len, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}
