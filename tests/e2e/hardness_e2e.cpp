/* What clients, daemons, disks and a dying master agent do to the agent, and what it keeps. */

#include "world.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

static const std::string CARD = "1.3.6.1.4.1.32473.2", PORT = CARD + ".10.1.1.",
                         ALARM = CARD + ".11.1.1.", SPEED = PORT + "1.1.";

/* The master agent as the packaging files set it up, and the agent with its own. */
static void shipped_start(world_t* w)
{
    const std::string packaging = TPG_SOURCE_DIR "/packaging/";
    fs::copy_file(packaging + "card_agentx.conf", "/tmp/conf/card_agentx.conf",
                  fs::copy_options::overwrite_existing);
    write_file("/tmp/conf/snmpd.conf", "rwcommunity rw\nrocommunity ro\n");
    w->snmpd = proc_start("snmpd", {"snmpd", "-f", "-Le", "-C", "-c",
                                    "/tmp/conf/snmpd.conf," + packaging + "snmpd-agentx.conf", "-p",
                                    "/tmp/run/snmpd.pid", SNMPD});
    EXPECT_TRUE(wait_for_text(w->snmpd.log, "NET-SNMP version"));
}

/* Cards of one family in some slots: a table of ports and one of faults with switches. */
static void cards_start(world_t* w, const std::vector<int>& slots)
{
    card_files("demo", document("ports"));
    std::string cards;
    for (const int slot : slots) {
        flash_folder("DEMO", slot);
        const std::string value = std::to_string(10 * slot);
        cards += (cards.empty() ? "" : ",") +
                 played_card(slot, "demo", "DEMO", R"(, "values": {"101": )" + value + "}");
    }
    chassis_start(w, cards);
    const std::string last = std::to_string(slots.back());
    EXPECT_TRUE(wait_for([&] { return get(SPEED + last) == "INTEGER: " + last + "0"; }));
}

static std::vector<int> connect_many(size_t count)
{
    std::vector<int> fds(count);
    std::generate(fds.begin(), fds.end(), client_connect);
    return fds;
}

static long number_of_descriptors(pid_t pid)
{
    const auto fds = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd");
    return std::distance(begin(fds), end(fds));
}

TEST_F(World, TheNewestOfTooManyClientsIsRefused)
{
    agents_start(&w);
    cards_start(&w, {3});
    const long descriptors = number_of_descriptors(w.tpg.pid);
    std::vector<int> fds = connect_many(255); /* one is the card */
    const int newest = client_connect();
    char byte = 0;
    EXPECT_TRUE(wait_for([&] { return recv(newest, &byte, 1, MSG_DONTWAIT) == 0; }));
    EXPECT_EQ(log_count(w, "|Warn (tpg:"), 1);
    EXPECT_EQ(log_count(w, ": 256 clients are connected"), 1);
    auto card = client_update(TPG_MSG_LIBMIB_REGISTER, 4, "demo", "DEMO", 0,
                              std::string(CARDS) + "/libmib_demo.so");
    EXPECT_TRUE(client_update_acked(fds.back(), card));
    EXPECT_EQ(get(SPEED + "3"), "INTEGER: 30");
    EXPECT_TRUE(log_has(w, "Same/older version 1.0.0 on slot 4 "));
    close(fds.back());
    fds.pop_back();
    EXPECT_TRUE(log_has(w, "Unregistering ] demo:DEMO"));
    fds.push_back(client_connect());
    EXPECT_TRUE(client_update_acked(fds.back(), card));
    std::for_each(fds.begin(), fds.end(), close);
    close(newest);
    /* With a card goes the connection to its daemon, also where that of its client stays. */
    for (const auto& [command, closed] : {std::pair{"plug 3", 0}, {"unregister 3", 1},
                                          {"plug 3", 0}, {"unplug 3", 2}}) {
        chassis(&w, command);
        EXPECT_TRUE(wait_for([&] {
            return (closed > 0 || get(SPEED + "3") == "INTEGER: 30") &&
                   number_of_descriptors(w.tpg.pid) == descriptors - closed;
        })) << command;
    }
}

TEST_F(World, RunningOutOfDescriptorsIsSurvived)
{
    agents_start(&w);
    cards_start(&w, {3, 4});
    const std::string cell = SPEED + "3";
    for (const rlim_t limit : {rlim_t{100}, rlim_t{12}}) {
        const auto complaints = [&] {
            return log_count(w, "descriptors are running out") +
                   log_count(w, "cannot accept a connection, Too many open files");
        };
        const int before_it = complaints();
        rlimit before = {};
        ASSERT_EQ(prlimit(w.tpg.pid, RLIMIT_NOFILE, nullptr, &before), 0);
        const rlimit small = {limit, before.rlim_max};
        ASSERT_EQ(prlimit(w.tpg.pid, RLIMIT_NOFILE, &small, nullptr), 0);
        const std::vector<int> fds = connect_many(100);
        EXPECT_TRUE(wait_for([&] { return complaints() > before_it; }));
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(get(cell), "INTEGER: 30");
        }
        EXPECT_LE(complaints() - before_it, 120); /* it does not try again and again */
        std::for_each(fds.begin(), fds.end(), close);
        ASSERT_EQ(prlimit(w.tpg.pid, RLIMIT_NOFILE, &before, nullptr), 0);
        chassis(&w, "unplug 4");
        EXPECT_EQ(chassis(&w, "plug 4"), "ok plug 4 sent");
        EXPECT_EQ(get(SPEED + "4"), "INTEGER: 40");
    }
}

TEST_F(World, HostileClientsCannotForgeOrFloodTheLog)
{
    tpg_start(&w);
    const int fd = client_connect();
    const auto forged =
        client_update(TPG_MSG_LIBMIB_REGISTER, 4, "\n|Warn (tpg)\x1b[", "DEMO", 0, "/lib.so");
    EXPECT_TRUE(client_update_acked(fd, forged));
    EXPECT_TRUE(log_has(w, R"("\x0a|Warn (tpg)\x1b[")"));
    EXPECT_EQ(read_file(w.tpg.log).find('\x1b'), std::string::npos);
    EXPECT_EQ(log_count(w, "\n|Warn (tpg)"), 0);
    EXPECT_TRUE(log_has(w, " is process " + std::to_string(getpid()) + " of user 0, group 0"));
    const int before = log_count(w, "\n");
    for (int i = 0; i < 100; i++) {
        client_send(fd, std::string(100 * sizeof(com_msg_head_t), '\xff'));
    }
    EXPECT_TRUE(wait_for([&] { /* a message that comes in pieces may be lost */
                               int unread = 0;
                               return ioctl(fd, SIOCOUTQ, &unread) == 0 && unread == 0;
    }));
    EXPECT_TRUE(client_update_acked(fd, forged)); /* everything in front of it has been served */
    const auto left_out = [&] {
        const std::string log = read_file(w.tpg.log);
        int total = 0;
        for (size_t at = 0; (at = log.find(" more like this (", at)) != std::string::npos; at++) {
            total += std::stoi(log.substr(log.rfind(' ', at - 1) + 1));
        }
        return total;
    };
    /* The client says nothing more, and goes on being connected. */
    EXPECT_TRUE(wait_for([&] { return log_count(w, "Invalid header") + left_out() >= 10000; }));
    EXPECT_GT(left_out(), 5000);
    EXPECT_LE(log_count(w, "\n") - before, 2000);
    close(fd);
    EXPECT_TRUE(log_has(w, "to client PID 1234 closed"));
}

TEST_F(World, SwitchesSurvivePowerCutsAndFullFlash)
{
    agents_start(&w);
    cards_start(&w, {3});
    const std::string file = flash_folder("DEMO", 3);
    const auto restart = [&](const std::string& switches = "1.3=1 2.3=2 3.3=2 4.3=2") {
        tpg_start(&w);
        EXPECT_TRUE(wait_for([] { return get(ALARM + "2.1.3") == "INTEGER: 1"; }));
        EXPECT_EQ(cells(ALARM + "2"), switches);
    };
    EXPECT_EQ(set(ALARM + "2.1.3", "i", "1"), "");
    const std::string good = read_file(file);
    for (const std::string& torn : {std::string(), good.substr(0, good.size() / 2)}) {
        EXPECT_EQ(proc_end(&w.tpg, SIGKILL), -SIGKILL);
        write_file(file, torn);
        write_file(file + ".last", good);
        restart();
        EXPECT_TRUE(log_has(w, file + " is unusable, its switches come from " + file + ".last"));
        EXPECT_EQ(read_file(file), good);
    }
    /* A file that nothing can replace. */
    EXPECT_EQ(proc_end(&w.tpg), 0);
    ASSERT_EQ(mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr), 0);
    restart();
    EXPECT_EQ(set(ALARM + "2.2.3", "i", "1") + set(ALARM + "2.4.3", "i", "1"), "");
    EXPECT_EQ(proc_end(&w.tpg), 0);
    EXPECT_EQ(read_file(file), good);
    restart("1.3=1 2.3=1 3.3=2 4.3=1");
    EXPECT_EQ(proc_end(&w.tpg), 0);
    ASSERT_EQ(umount(file.c_str()), 0);
}

TEST_F(World, CardsComeAndGoUnderManagersWithoutHarmToTheMaster)
{
    shipped_start(&w);
    tpg_start(&w);
    cards_start(&w, {3});
    const std::string ports = cells(PORT + "1");
    std::vector<proc_t> managers =
        managers_start({"snmpbulkwalk " + CARD, "snmpwalk " + CARD, "snmpget " + SPEED + "3"});
    const auto gone = [] {
        return get(SPEED + "3") == "No Such Object available on this agent at this OID";
    };
    for (int round = 0; round < 50; round++) {
        chassis(&w, "unplug 3");
        ASSERT_TRUE(wait_for(gone));
        chassis(&w, "plug 3");
        ASSERT_TRUE(wait_for([] { return get(SPEED + "3") == "INTEGER: 30"; }));
    }
    EXPECT_EQ(cells(PORT + "1"), ports);
    managers_end(&managers);
    EXPECT_EQ(log_count(w, "AgentX master disconnected us"), 0);

    chassis(&w, "unplug 3");
    EXPECT_TRUE(wait_for(gone));
    EXPECT_EQ(set(SPEED + "3", "i", "1"), "notWritable");
    EXPECT_EQ(cells(CARD), "");
    /* The master's list of registrations; asking for it is no request to the agent. */
    const std::string entry = "." + CARD.substr(CARD.find("32473")) + ".10.1.127";
    EXPECT_TRUE(wait_for([&] {
        return run({"snmpwalk", "-v2c", "-c", "ro", "-One", SNMPD, "1.3.6.1.4.1.8072.1.2.1.1.4"})
                   .find(entry) == std::string::npos;
    }));
    EXPECT_TRUE(gone());
    EXPECT_EQ(set(SPEED + "3", "i", "1"), "notWritable");
    chassis(&w, "plug 3");
    EXPECT_TRUE(wait_for([&] { return cells(PORT + "1") == ports; }));
}
