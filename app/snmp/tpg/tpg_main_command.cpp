/* One shell command at a time, with a time limit and clean surroundings. */

#include "tpg_main_command.h"

#include <csignal>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

/* The signals' state outside of a command. */
struct signals_t {
    sigset_t mask;
    struct sigaction child;
};

static void stop_handler(int);
static void hold_signals(signals_t*);
static void release_signals(const signals_t*);
static int spawn_shell(const char*, pid_t*);
static char* search_path();
static int await(pid_t, const sigset_t*, int*);
static int exit_status(int);
static bool has_ended(pid_t);
static bool nap_until(int64_t, const sigset_t*);

constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGQUIT};
constexpr char SHELL[] = "/bin/sh";
constexpr char PATH_VARIABLE[] = "PATH=";
constexpr int64_t MS_PER_S = 1000;
constexpr int64_t NS_PER_MS = 1000000;

static volatile sig_atomic_t stop_asked;
static void (*stop_before[std::size(STOP_SIGNALS)])(int); /* by the position of the signal */

/* ---- signals ---- */

static void stop_handler(int sig)
{
    stop_asked = 1;
    for (size_t i = 0; i < std::size(STOP_SIGNALS); i++) {
        if (STOP_SIGNALS[i] == sig && stop_before[i] != SIG_DFL && stop_before[i] != SIG_IGN) {
            stop_before[i](sig);
        }
    }
}

void tpg_command_watch_stop()
{
    struct sigaction action = {};
    action.sa_handler = stop_handler;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    for (size_t i = 0; i < std::size(STOP_SIGNALS); i++) {
        struct sigaction before = {};
        if (sigaction(STOP_SIGNALS[i], nullptr, &before) == 0 &&
            before.sa_handler != stop_handler) {
            stop_before[i] = before.sa_handler;
            sigaction(STOP_SIGNALS[i], &action, nullptr);
        }
    }
}

bool tpg_command_stop_asked()
{
    return stop_asked != 0;
}

/* Wakes the wait for the command; nothing else is to be done. */
static void child_handler(int sig)
{
    (void)sig;
}

/* Blocks the signals that end the wait. They are let in during the wait only: one that came just
 * before it would be missed. */
static void hold_signals(signals_t* before)
{
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGCHLD);
    for (const int sig : STOP_SIGNALS) {
        sigaddset(&held, sig);
    }
    sigprocmask(SIG_BLOCK, &held, &before->mask);
    struct sigaction action = {}; /* where SIGCHLD is ignored the status is lost */
    action.sa_handler = child_handler;
    sigaction(SIGCHLD, &action, &before->child);
}

static void release_signals(const signals_t* before)
{
    sigaction(SIGCHLD, &before->child, nullptr);
    sigprocmask(SIG_SETMASK, &before->mask, nullptr);
}

/* ---- running ---- */

int tpg_command_run(const char* command, int* status)
{
    int ended = 0;
    signals_t before = {};
    hold_signals(&before);
    pid_t pid = -1;
    int error = stop_asked != 0 ? ECANCELED : spawn_shell(command, &pid);
    if (error == 0) {
        error = await(pid, &before.mask, &ended);
    }
    release_signals(&before);
    if (status != nullptr) {
        *status = exit_status(ended);
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

/* What a shell shows as the status of a process that waitpid tells of. */
static int exit_status(int ended)
{
    constexpr int SIGNALLED = 128;
    return WIFSIGNALED(ended) ? SIGNALLED + WTERMSIG(ended) : WEXITSTATUS(ended);
}

/* The agent's entry of its environment that says where tools are; null when it has none. */
static char* search_path()
{
    for (char** entry = environ; entry != nullptr && *entry != nullptr; entry++) {
        if (strncmp(*entry, PATH_VARIABLE, sizeof(PATH_VARIABLE) - 1) == 0) {
            return *entry;
        }
    }
    return nullptr;
}

/* 0, or why the shell could not be started. */
static int spawn_shell(const char* command, pid_t* pid)
{
    char shell[] = "sh";
    char option[] = "-c";
    char language[] = "LC_ALL=C"; /* what objdump prints is read by the agent */
    char* const argv[] = {shell, option, const_cast<char*>(command), nullptr};
    char* const environment[] = {language, search_path(), nullptr};
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    int error = posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (error == 0) {
        error = posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    }
    if (error == 0) {
        error = posix_spawn(pid, SHELL, &files, &attributes, argv, environment);
    }
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    return error;
}

static int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * MS_PER_S + now.tv_nsec / NS_PER_MS;
}

/* Sleeps until one of the held signals comes; false when there is no time left. */
static bool nap_until(int64_t deadline, const sigset_t* mask)
{
    const int64_t left = deadline - now_ms();
    if (left <= 0) {
        return false;
    }
    timespec time = {};
    time.tv_sec = static_cast<time_t>(left / MS_PER_S);
    time.tv_nsec = static_cast<long>(left % MS_PER_S * NS_PER_MS);
    ppoll(nullptr, 0, &time, mask);
    return true;
}

/* True when the process has ended. It is left to be waited for, so that its number, by which its
 * group is killed, stays its own. */
static bool has_ended(pid_t pid)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid == pid;
}

/*
 * Waits for the shell: 0 when it has ended by itself, else why not (errno).
 * Then its whole group is killed. A process that hangs in the kernel and cannot
 * be killed is not waited for: SIGCHLD is ignored outside of commands, so that
 * it leaves nothing behind when it goes.
 */
static int await(pid_t pid, const sigset_t* mask, int* ended)
{
    const int64_t deadline = now_ms() + TPG_COMMAND_SECONDS * MS_PER_S;
    int error = 0;
    while (error == 0 && !has_ended(pid)) {
        if (stop_asked != 0) {
            error = ECANCELED;
        } else if (!nap_until(deadline, mask)) {
            error = ETIMEDOUT;
        }
    }
    kill(-pid, SIGKILL);
    const int64_t patience = now_ms() + TPG_COMMAND_KILL_MS;
    while (waitpid(pid, ended, WNOHANG) == 0 && nap_until(patience, mask)) {
    }
    return error;
}
