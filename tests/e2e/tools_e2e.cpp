/* Tools that hang, and parents that leave strange signals and descriptors. */

#include "world.h"

#include <algorithm>

namespace fs = std::filesystem;

static const std::string FAM = "1.3.6.1.4.1.32473.7";
constexpr char TOOL[] = "/tmp/bin/libmib_reverse", TOOLS[] = "/tmp/tools";

/* A card of version 1.N.0 whose document brings table N, or with which the tool is to find it. */
static tpg_msg_libmib_update_t card(int slot, int n, bool has_document = true)
{
    const std::string name = std::to_string(n);
    const std::string library = has_document ? card_library(name, "demo", numbered_document(FAM, n))
                                             : card_library(name, "", "");
    return client_update(TPG_MSG_LIBMIB_REGISTER, slot, "demo", "FAM", n, library);
}

static std::string served(int n, int slot)
{
    return std::to_string(n) + ".1.1." + std::to_string(slot) + "=" + std::to_string(slot);
}

/* The tool does not end, nor does what it starts. */
static void let_the_tool_hang()
{
    fs::remove(TOOLS);
    write_file(TOOL, std::string("#!/bin/sh\nsleep 1000 &\necho $$ $! >") + TOOLS + "\nwait\n",
               0755);
}

/* The processes of the tool, once it hangs. */
static std::vector<pid_t> hanging_tools()
{
    EXPECT_TRUE(wait_for_text(TOOLS, "\n"));
    std::vector<pid_t> pids;
    for (const std::string& word : words_of(read_file(TOOLS))) {
        pids.push_back(std::stoi(word));
    }
    EXPECT_EQ(pids.size(), 2U);
    return pids;
}

static bool have_ended(const std::vector<pid_t>& pids)
{
    return std::ranges::all_of(pids, has_ended);
}

TEST_F(World, AToolThatHangsIsEndedAndHoldsNothingUp)
{
    agents_start(&w);
    const int fd = client_connect(), other = client_connect();
    EXPECT_TRUE(client_update_acked(fd, card(3, 3)));
    expect_cells(FAM, served(3, 3));
    let_the_tool_hang();
    auto hung = card(4, 4, false);
    set_text(hung.libmib_update.prod_family, "OTHER");
    EXPECT_TRUE(client_update_acked(other, hung));
    const std::vector<pid_t> tools = hanging_tools();
    EXPECT_FALSE(have_ended(tools)); /* the acknowledgement came before */
    EXPECT_EQ(get(FAM + "." + served(3, 3).substr(0, 7)), "INTEGER: 3");
    EXPECT_TRUE(wait_for([&] { return have_ended(tools); }));
    EXPECT_TRUE(log_has(w, "command libmib_reverse " + std::string(hung.libmib_update.libmib_path) +
                               " failed, it took more than 5 s"));
    EXPECT_EQ(log_count(w, "failed, it took"), 1);
    EXPECT_TRUE(log_has(w, "failed to register new target as master"));
    write_file("/tmp/reversed", numbered_document(FAM, 4));
    write_file(TOOL, "#!/bin/sh\ncp /tmp/reversed $1.json\n", 0755);
    EXPECT_TRUE(client_update_acked(other, hung));
    expect_cells(FAM, served(3, 3) + " " + served(4, 4));
}

TEST_F(World, SignalsEndTheAgentAndItsTool)
{
    const struct {
        int signal_no;
        words_t options; /* of a card that is registered at the start */
    } cases[] = {{SIGTERM, {}},
                 {SIGINT, {}},
                 {SIGQUIT, {}},
                 {SIGTERM, {"-t", card_library("test", "", "")}}};
    snmpd_start(&w);
    for (const auto& [signal_no, options] : cases) {
        let_the_tool_hang();
        tpg_start(&w, options, "3100KX", options.empty());
        if (options.empty()) {
            const int fd = client_connect(), newer = client_connect();
            EXPECT_TRUE(client_update_acked(fd, card(3, 3)));
            expect_cells(FAM, served(3, 3));
            EXPECT_TRUE(client_update_acked(newer, card(4, 4, false))); /* of the same family */
        }
        const std::vector<pid_t> tools = hanging_tools();
        EXPECT_EQ(proc_end(&w.tpg, signal_no), 0);
        EXPECT_TRUE(wait_for([&] { return have_ended(tools); }));
        const std::string log = read_file("/tmp/run/tpg.log");
        EXPECT_TRUE(has(log, " failed, the agent is to end\n")) << log;
        EXPECT_TRUE(has(log, "TPG exit!")) << log;
        EXPECT_FALSE(fs::exists(TPG_SVR_PATH));
    }
}

TEST_F(World, WhatTheParentIgnoredOrClosedIsNoMatter)
{
    write_file("/tmp/reversed", numbered_document(FAM, 4));
    write_file(TOOL,
               "#!/bin/sh\nls /proc/self/fd >/tmp/seen\nreadlink /proc/$PPID/fd/[012] >>/tmp/seen\n"
               "env | grep -c SECRET >>/tmp/seen\ngrep SigBlk /proc/self/status >>/tmp/seen\n"
               "sleep 1000 &\necho $! >/tmp/left\ncp /tmp/reversed $1.json\n",
               0755);
    snmpd_start(&w);
    std::string start = "trap '' CHLD HUP PIPE USR1; exec 0<&- 1>&- 2>&- 7</dev/null;"
                        "BASE_BOARD=3100KX SECRET=1 exec";
    for (const std::string& word : runner() + words_t{TPG_BIN}) {
        start += " " + word;
    }
    w.tpg = proc_start("tpg", {"sh", "-c", start});
    const int fd = client_connect();
    EXPECT_TRUE(client_update_acked(fd, card(4, 4, false)));
    expect_cells(FAM, served(4, 4));
    EXPECT_EQ(read_file("/tmp/seen"), "0\n1\n2\n3\n" /* the last is the folder that is listed */
                                      "/dev/null\n/dev/null\n/dev/null\n"
                                      "0\nSigBlk:\t0000000000000000\n");
    EXPECT_TRUE(wait_for([] { return has_ended(std::stoi(read_file("/tmp/left"))); }));
}
