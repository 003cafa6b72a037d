/* What the service manager and its journal get from the agent. */

#include "world.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

static const std::string FAM = "1.3.6.1.4.1.32473.7";

/* The service manager's socket. */
static int manager_open(const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string_view(path).copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

/* What comes next; empty if nothing does within so many milliseconds. */
static std::string manager_hears(int fd, int patience = SECONDS * 1000)
{
    pollfd readable = {fd, POLLIN, 0};
    char text[256];
    const ssize_t length =
        poll(&readable, 1, patience) == 1 ? recv(fd, text, sizeof(text), MSG_DONTWAIT) : 0;
    return {text, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

static bool manager_hears_text(int fd, std::string_view text)
{
    return wait_for([&] { return manager_hears(fd, 100) == text; });
}

TEST_F(World, TellsTheServiceManager)
{
    const int fd = manager_open("/tmp/run/notify");
    setenv("NOTIFY_SOCKET", "/tmp/run/notify", 1);
    setenv("WATCHDOG_USEC", "400000", 1);
    card_files("demo", numbered_document(FAM, 1));
    tpg_start(&w, {"-D", "agentx/subagent"});
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    const std::string first = manager_hears(fd);
    if (first.empty()) {
        GTEST_SKIP() << "built without systemd's library";
    }
    EXPECT_EQ(first, "READY=1");
    EXPECT_EQ(manager_hears(fd), "STATUS=no master agent; 0 cards");
    /* That there is none is said once, not at each attempt. */
    EXPECT_TRUE(log_has(w, "opening session...", 3));
    EXPECT_EQ(log_count(w, "Failed to connect to the agentx master agent"), 1);
    snmpd_start(&w);
    chassis_start(&w, played_card(3, "demo", "FAM") + "," + played_card(12, "demo", "FAM"));
    EXPECT_TRUE(manager_hears_text(fd, "STATUS=master agent connected; 2 cards in slots 3, 12"));
    EXPECT_EQ(log_count(w, "|: NET-SNMP version 5.9.3 AgentX subagent connected"), 1);
    /* A loop that stands still gives no sign of life. */
    EXPECT_TRUE(manager_hears_text(fd, "WATCHDOG=1"));
    kill(w.tpg.pid, SIGSTOP);
    while (!manager_hears(fd, 0).empty()) {
    }
    EXPECT_EQ(manager_hears(fd, 1000), "");
    kill(w.tpg.pid, SIGCONT);
    EXPECT_TRUE(manager_hears_text(fd, "WATCHDOG=1"));
    proc_end(&w.snmpd, SIGKILL);
    EXPECT_TRUE(manager_hears_text(fd, "STATUS=no master agent; 2 cards in slots 3, 12"));
    EXPECT_TRUE(log_has(w, "Failed to connect to the agentx master agent", 2));
    EXPECT_EQ(proc_end(&w.tpg), 0);
    EXPECT_TRUE(manager_hears_text(fd, "STOPPING=1"));
    close(fd);
}

TEST_F(World, JournalGetsEachLineOnce)
{
    std::string program;
    for (const std::string& word : runner() + words_t{TPG_BIN}) {
        program += " " + word;
    }
    for (const std::string stream : {"$(stat -Lc %d:%i /proc/self/fd/2)", "1:1"}) {
        w.tpg = proc_start(
            "tpg", {"sh", "-c", "JOURNAL_STREAM=" + stream + " BASE_BOARD=3100KX exec" + program});
        close(client_connect());
        EXPECT_EQ(proc_end(&w.tpg), 0);
        EXPECT_EQ(log_count(w, "|: TPG exit!"), stream == "1:1" ? 1 : 0);
        EXPECT_EQ(log_count(w, "AgentX") + log_count(w, "agentx") > 0, stream == "1:1");
    }
}
