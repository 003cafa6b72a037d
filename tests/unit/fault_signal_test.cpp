/* A crash ends the process with its own signal; a sent signal reaches the handler before. */

#include "tpg_main_fault.h"
#include "tpg_main_socket.h"
#include "unit.h"

#include <climits>
#include <csignal>
#include <functional>
#include <sys/mman.h>
#include <sys/wait.h>

static void touch(void* page)
{
    *static_cast<volatile char*>(page) = 1;
}

static volatile int deepest = INT_MAX; /* so that the recursion seems to end */

static int overflow_the_stack(int level) // NOLINT(misc-no-recursion)
{
    volatile char frame[4096] = {};
    frame[0] = static_cast<char>(level);
    return deepest < level ? 0 : overflow_the_stack(level + 1) + frame[0];
}

/* The status of a child that does action after the handler before and the agent's stand. */
static int child_status(const std::function<void()>& action, void (*before)(int))
{
    constexpr unsigned PATIENCE = 30; /* seconds, then a spinning child is ended by its alarm */
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(PATIENCE);
        signal(SIGSEGV, before);
        signal(SIGBUS, SIG_DFL);
        tpg_socket_note(new_context().get(), tpg_socket::cards, TPG_SVR_PATH);
        tpg_fault_handler_install();
        action();
        _exit(EXIT_SUCCESS);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(fault_signal, crashes_and_sent_signals)
{
    const auto on_sent = [](int) { _exit(7); };
    /* To the thread: in a fresh child the emulator may hand a signal to a thread of its own. */
    const auto send = [] { raise(SIGSEGV); };
    const struct {
        std::function<void()> action;
        void (*before)(int);
        int status;
        bool crash, kept = !crash; /* the socket's file */
    } cases[] = {
        {[] { touch(mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)); }, on_sent,
         -SIGSEGV, true},
        /* A mapped file that shrank: flash that went away looks like this. */
        {[] { touch(mmap(nullptr, 1, PROT_WRITE, MAP_SHARED, fileno(tmpfile()), 0)); }, on_sent,
         -SIGBUS, true},
        {[] { overflow_the_stack(0); }, on_sent, -SIGSEGV, true},
        /* Another agent's file stands there by then. */
        {[] {
             std::filesystem::rename(TPG_SVR_PATH, "/tmp/first");
             write_file(TPG_SVR_PATH, "");
             touch(mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
         },
         on_sent, -SIGSEGV, true, true},
        {send, on_sent, 7, false},
        {send, SIG_IGN, EXIT_SUCCESS, false},
        {send, SIG_DFL, -SIGSEGV, false},
    };
    for (const auto& [action, before, status, crash, kept] : cases) {
        write_file(TPG_SVR_PATH, "");
        testing::internal::CaptureStderr();
        EXPECT_EQ(child_status(action, before), status);
        /* An emulator adds a line of its own when a signal ends a program. */
        const std::string log = std::regex_replace(testing::internal::GetCapturedStderr(),
                                                   std::regex("qemu: [^\n]*\n"), "");
        const std::regex line(R"(\|Error \(tpg:\d+\)\|tpg_main_fault\.cpp: crashed with signal )" +
                              std::to_string(-status) + "\n");
        EXPECT_EQ(std::filesystem::exists(TPG_SVR_PATH), kept);
        EXPECT_TRUE(crash ? std::regex_match(log, line) : log.empty()) << log;
    }
}
