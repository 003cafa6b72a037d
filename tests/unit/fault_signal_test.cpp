/* A crash ends the process with its own signal; a sent signal reaches the handler before. */

#include "tpg_main_fault.h"
#include "unit.h"

#include <climits>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr unsigned PATIENCE = 30; /* seconds, then a spinning child is ended by its alarm */
constexpr char STDERR_COPY[] = "/tmp/fault_stderr";

/* What the child said; an emulator adds a line of its own when a signal ends a program. */
static std::string said()
{
    return std::regex_replace(read_file(STDERR_COPY), std::regex("qemu: [^\n]*\n"), "");
}

static void touch_forbidden_page()
{
    void* page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char*>(page) = 1;
}

/* A mapped file that shrank: flash that went away looks like this. */
static void touch_lost_page()
{
    FILE* file = tmpfile();
    void* page = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(file), 0);
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
static int child_status(const std::function<void()>& action, void (*before)(int) = SIG_DFL)
{
    write_file(TPG_SVR_PATH, "");
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit no_core = {};
        setrlimit(RLIMIT_CORE, &no_core);
        alarm(PATIENCE);
        if (freopen(STDERR_COPY, "w", stderr) == nullptr) {
            _exit(EXIT_FAILURE);
        }
        signal(SIGSEGV, before);
        signal(SIGBUS, SIG_DFL);
        tpg_fault_handler_install();
        action();
        _exit(EXIT_SUCCESS);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

static std::string error_line(int signal_no)
{
    return R"(\|Error \(tpg:\d+\)\|tpg_main_fault\.cpp: crashed with signal )" +
           std::to_string(signal_no) + "\n";
}

TEST(fault_signal, crashes_end_the_process)
{
    const auto on_sent = [](int) { _exit(7); };
    const std::pair<int, std::function<void()>> crashes[] = {
        {SIGSEGV, touch_forbidden_page},
        {SIGBUS, touch_lost_page},
        {SIGSEGV, [] { overflow_the_stack(0); }},
    };
    for (const auto& [signal_no, crash] : crashes) {
        EXPECT_EQ(child_status(crash, on_sent), -signal_no);
        EXPECT_FALSE(std::filesystem::exists(TPG_SVR_PATH));
        EXPECT_TRUE(std::regex_match(said(), std::regex(error_line(signal_no)))) << said();
    }
}

TEST(fault_signal, sent_ones_reach_the_handler_before)
{
    const auto send = [] { kill(getpid(), SIGSEGV); };
    EXPECT_EQ(child_status(send, [](int) { _exit(7); }), 7);
    EXPECT_EQ(child_status(send, SIG_IGN), EXIT_SUCCESS);
    EXPECT_EQ(child_status(send), -SIGSEGV);
    EXPECT_TRUE(std::filesystem::exists(TPG_SVR_PATH));
    EXPECT_EQ(said(), "");
}
