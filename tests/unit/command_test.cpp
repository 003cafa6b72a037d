/* Commands of the shell: what they are given, and how they end. */

#include "tpg_main_command.h"
#include "unit.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

TEST(command, gets_nothing_of_the_agent)
{
    const int kept = open("/tmp", O_RDONLY); // NOLINT(android-cloexec-open)
    const auto child = signal(SIGCHLD, SIG_IGN);
    const auto hangup = signal(SIGHUP, SIG_IGN);
    setenv("SECRET", "1", 1);
    EXPECT_EQ(tpg_command_run("ls /proc/self/fd >/tmp/seen; env | grep -v ^PWD >>/tmp/seen;"
                              "grep -E 'Sig(Blk|Ign)' /proc/self/status >>/tmp/seen;"
                              "readlink /proc/$$/fd/0 >>/tmp/seen;"
                              "cut -d' ' -f5 /proc/$$/stat >/tmp/group; echo $$ >/tmp/shell;"
                              "sleep 1000 & echo $! >/tmp/left; exit 3"),
              0);
    EXPECT_EQ(signal(SIGCHLD, child), SIG_IGN);
    signal(SIGHUP, hangup);
    close(kept);
    std::string seen = read_file("/tmp/seen");
    EXPECT_EQ(seen.find("PATH="), seen.rfind("PATH="));
    seen = std::regex_replace(seen, std::regex("PATH=.*\n"), "");
    /* 3 is the folder that is listed; of the ignored signals, some are the C library's or an
     * emulator's own. */
    EXPECT_TRUE(std::regex_match(seen, std::regex("0\n1\n2\n3\nLC_ALL=C\nSigBlk:\t0{16}\n"
                                                  "SigIgn:\t0{7}[0-7][08]0{7}\n/dev/null\n")))
        << seen;
    EXPECT_EQ(read_file("/tmp/group"), read_file("/tmp/shell"));
    const pid_t left = std::stoi(read_file("/tmp/left"));
    for (int i = 0; i < 1000 && !has_ended(left); i++) {
        poll(nullptr, 0, 10);
    }
    EXPECT_TRUE(has_ended(left));
}

TEST(command, ends_with_the_agent)
{
    const pid_t agent = fork();
    if (agent == 0) {
        static int told;
        signal(SIGTERM, [](int) { told++; });
        tpg_command_watch_stop();
        tpg_command_watch_stop(); /* does not call itself */
        const bool ended =
            tpg_command_run("kill -TERM $PPID; sleep 1000") == -1 && errno == ECANCELED;
        const bool no_more = tpg_command_run("touch /tmp/no_more") == -1 && errno == ECANCELED;
        _exit(ended && no_more && told == 1 && tpg_command_stop_asked() ? 0 : 1);
    }
    int status = -1;
    waitpid(agent, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(std::filesystem::exists("/tmp/no_more"));
}
