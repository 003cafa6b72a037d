/* The agent as a process: its start and end, its master agent, its clients. */

#include "world.h"

#include <filesystem>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

static const std::string FAM = "1.3.6.1.4.1.32473.7", ONE = "1.1.1.";

/* The cell of table FAM.1 in a slot, which says whether a card is served there. */
static std::string slot_cell(int slot)
{
    const std::string number = std::to_string(slot);
    return get(FAM + "." + ONE + number) == "INTEGER: " + number ? "served" : "none";
}

static void expect_slot(int slot, const std::string& state)
{
    wait_for([&] { return slot_cell(slot) == state; });
    EXPECT_EQ(slot_cell(slot), state) << slot;
}

static tpg_msg_libmib_update_t card(int slot, tpg_msg_type type = TPG_MSG_LIBMIB_REGISTER)
{
    return client_update(type, slot, "demo", "FAM", 1, std::string(CARDS) + "/libmib_demo.so");
}

static void card_start(world_t* w, const words_t& options = {})
{
    card_files("demo", numbered_document(FAM, 1));
    agents_start(w, options);
}

TEST_F(World, BoardDecidesBeforeTheOptions)
{
    for (const std::string board : {"", "3100KXX", "3100K", "3100kx"}) {
        tpg_start(&w, {"-L", "?"}, board, false);
        EXPECT_EQ(proc_end(&w.tpg, 0), -SIGABRT) << board;
        EXPECT_EQ(log_count(w, "unsupported BASE_BOARD " + board + "!"), board.empty() ? 0 : 1);
        EXPECT_FALSE(fs::exists(TPG_SVR_PATH));
    }
    tpg_start(&w, {"-L", "?"}, "3101KX", false);
    EXPECT_EQ(proc_end(&w.tpg, 0), 255);
    EXPECT_EQ(log_count(w, "snmp_log_options ? failed!"), 1);
}

TEST_F(World, OptionsSwitchTracesOn)
{
    snmpd_start(&w);
    const std::string long_token(40, 'x');
    tpg_start(&w,
              {"-d", "one", "-d", "a,b,c,d,e,readcb," + long_token + ",h,i", "-D", "jsonmib", "-Lf",
               "/tmp/run/own", "-z"},
              "3101KX");
    const auto line = card(3);
    card_files("demo", numbered_document(FAM, 1));
    const int fd = client_connect();
    EXPECT_TRUE(client_update_acked(fd, line));
    EXPECT_TRUE(log_has(w, "tpg_svr_conn_readcb(): enter, state=0"));
    EXPECT_EQ(log_count(w, "Registering net-snmp debug tokens jsonmib"), 1);
    EXPECT_EQ(log_count(w, "|Debug"), 0);
    expect_slot(3, "served");
    EXPECT_NE(read_file("/tmp/run/own").find(">>>Entering jsonmib_gen_table_helper_handler"),
              std::string::npos);
    EXPECT_EQ(proc_end(&w.tpg), 0);
    const std::string out = read_file("/tmp/run/tpg.out");
    EXPECT_TRUE(out.starts_with("option -d: one\nDebug tokens total=1\nkk=0, one\noption -d: a,b"))
        << out;
    EXPECT_NE(out.find("Debug tokens total=8\nkk=0, a\n"), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with("kk=6, " + long_token.substr(0, 31) + "\nkk=7, h\n")) << out;
}

TEST_F(World, EverySignalEndsItCleanly)
{
    write_file("/tmp/.tpg_debug", "");
    for (const int signal_no : {SIGTERM, SIGINT, SIGQUIT, SIGSEGV}) {
        tpg_start(&w);
        EXPECT_GT(log_count(w, "|Debug (tpg:"), 0);
        EXPECT_EQ(log_count(w, "debug enabled"), 1);
        EXPECT_EQ(fs::status(TPG_SVR_PATH).permissions(), fs::perms::all);
        EXPECT_EQ(proc_end(&w.tpg, signal_no), 0);
        EXPECT_EQ(log_count(w, "tpg_exit(): deleted /tmp/.tpg_svr"), 1);
        EXPECT_EQ(log_count(w, "TPG exit!"), 1);
        EXPECT_FALSE(fs::exists(TPG_SVR_PATH));
    }
}

TEST_F(World, ServesTheTestCardAndTheBuiltInTables)
{
    const std::string library = card_library("t", "qmc4512tvx90b3", numbered_document(FAM, 1));
    write_file(std::string(BUILT_IN) + "/libmibcard.so.json", numbered_document(FAM, 2));
    agents_start(&w, {"-t", library});
    EXPECT_EQ(log_count(w, "Tpg Agent is running in test mode!"), 1);
    expect_cells(FAM, ONE + "8=8 2.1.1.1=1 2.1.1.8=8");
    auto other = card(4);
    other.libmib_update.prod_family[0] = 'G';
    card_files("demo", numbered_document(FAM, 3));
    const int fd = client_connect();
    EXPECT_TRUE(client_update_acked(fd, other));
    expect_cells(FAM, ONE + "8=8 2.1.1.1=1 2.1.1.4=4 2.1.1.8=8 3.1.1.4=4");
}

TEST_F(World, MasterAgentMayComeLateAndComeBack)
{
    card_files("demo", numbered_document(FAM, 1));
    tpg_start(&w);
    chassis_start(&w, played_card(3, "demo", "FAM") + "," + played_card(4, "demo", "FAM"));
    EXPECT_TRUE(log_has(w, "on slot 4 ==> version 1.2.566 on master 3"));
    for (int round = 0; round < 2; round++) {
        snmpd_start(&w);
        expect_cells(FAM, ONE + "3=3 " + ONE + "4=4");
        proc_end(&w.snmpd, SIGKILL);
        chassis(&w, "unplug 4");
        EXPECT_EQ(chassis(&w, "plug 4"), "ok plug 4 registered");
    }
    snmpd_start(&w);
    expect_cells(FAM, ONE + "3=3 " + ONE + "4=4");
}

TEST_F(World, CardsGoWithTheirClients)
{
    card_start(&w);
    chassis_start(&w, played_card(3, "demo", "FAM") + "," + played_card(4, "demo", "FAM"));
    const int first = client_connect(), second = client_connect();
    for (const int slot : {5, 6}) {
        EXPECT_TRUE(client_update_acked(first, card(slot)));
    }
    EXPECT_TRUE(client_update_acked(second, card(7)));
    expect_cells(FAM, "1.1.1.3=3 1.1.1.4=4 1.1.1.5=5 1.1.1.6=6 1.1.1.7=7");
    proc_end(&w.chassis, SIGKILL);
    expect_cells(FAM, "1.1.1.5=5 1.1.1.6=6 1.1.1.7=7");
    close(first); /* only what it registered first */
    expect_cells(FAM, "1.1.1.6=6 1.1.1.7=7");
    EXPECT_TRUE(client_update_acked(second, card(7, TPG_MSG_LIBMIB_UNREGISTER)));
    expect_cells(FAM, "1.1.1.6=6");
    EXPECT_TRUE(client_update_acked(second, card(7)));
    expect_cells(FAM, "1.1.1.6=6 1.1.1.7=7");
    close(second);
    expect_cells(FAM, "1.1.1.6=6");
}

TEST_F(World, ReaderFramesMessages)
{
    card_start(&w, {"-d", "readcb"});
    const int fd = client_connect();
    const auto bytes = [](const auto& msg) {
        return std::string(reinterpret_cast<const char*>(&msg), sizeof(msg));
    };
    const auto send = [&](const std::string& text) { client_send(fd, text.data(), text.size()); };
    const std::string three = bytes(card(3)), four = bytes(card(4));
    send(three.substr(0, 5));
    EXPECT_TRUE(log_has(w, "read 5 bytes, wr_idx=5"));
    send(three.substr(5));
    expect_slot(3, "served");
    /* Two messages behind three heads that are refused. */
    auto no_pid = client_head(TPG_MSG_LIBMIB_REGISTER, 196);
    no_pid.ulPid = 0;
    no_pid.usReserved = com_msg_parity(&no_pid, TPG_PARITY_KEY);
    auto flipped = client_head(TPG_MSG_LIBMIB_REGISTER, 196);
    flipped.usFlags ^= 1;
    send(bytes(no_pid) + bytes(flipped) + bytes(client_head(4, 196)) + four + bytes(card(5)));
    expect_slot(4, "served");
    expect_slot(5, "served");
    EXPECT_EQ(log_count(w, "Invalid header"), 3);
    /* A message without a payload holds the reader until the next client comes. */
    send(bytes(client_head(TPG_MSG_TRAP_NOTIFY, 12)) + bytes(card(6)));
    EXPECT_TRUE(log_has(w, "Cannot read payload data"));
    const int other = client_connect();
    EXPECT_TRUE(client_update_acked(other, card(8)));
    expect_slot(8, "served");
    expect_slot(6, "none");
}

TEST_F(World, RefusesCardsThatCannotBe)
{
    card_start(&w);
    const int fd = client_connect();
    const struct {
        const char *product, *family, *path, *log;
    } refused[] = {
        {"demo", "FAM", "/tmp/cards/x;touch /tmp/run/bad;.so", "refused a card: libmib_path"},
        {"de`mo", "FAM", "/tmp/cards/libmib_demo.so", "refused a card: prod_string"},
        {"../demo", "FAM", "/tmp/cards/libmib_demo.so", "refused a card: prod_string"},
        {"demo", "../FAM", "/tmp/cards/libmib_demo.so", "refused a card: prod_family"},
        {"0123456789abcdef", "FAM", "/tmp/cards/libmib_demo.so", "refused a card: prod_string"},
    };
    for (const auto& one : refused) {
        const int before = log_count(w, one.log);
        EXPECT_TRUE(client_update_acked(
            fd, client_update(TPG_MSG_LIBMIB_REGISTER, 3, one.product, one.family, 1, one.path)));
        EXPECT_TRUE(log_has(w, one.log, before + 1)) << one.product;
    }
    EXPECT_FALSE(fs::exists("/tmp/run/bad"));
    auto brief = card(3);
    brief.head = client_head(TPG_MSG_LIBMIB_REGISTER, 100);
    client_send(fd, &brief, 100); /* no acknowledgement for this one */
    EXPECT_TRUE(log_has(w, "refused a libmib update of 100 bytes, expected 196"));
    for (const int slot : {16, 255}) {
        EXPECT_TRUE(client_update_acked(fd, card(slot)));
        EXPECT_TRUE(client_update_acked(fd, card(slot, TPG_MSG_LIBMIB_UNREGISTER)));
    }
    EXPECT_TRUE(client_update_acked(fd, card(9, TPG_MSG_LIBMIB_UNREGISTER)));
    EXPECT_TRUE(log_has(w, "target was not registered yet"));
    EXPECT_EQ(log_count(w, "Registering demo"), 0);
    EXPECT_EQ(log_count(w, "invalid slot_no"), 0);
    EXPECT_TRUE(client_update_acked(fd, card(3)));
    expect_slot(3, "served");
}

/* Kilobytes of memory and open descriptors of the agent. */
static std::pair<long, size_t> resources(const world_t& w)
{
    const std::string folder = "/proc/" + std::to_string(w.tpg.pid);
    const std::string status = read_file(folder + "/status");
    std::istringstream in(status.substr(status.find("VmRSS:") + 6));
    long kilobytes = 0;
    in >> kilobytes;
    const auto fds = fs::directory_iterator(folder + "/fd");
    return {kilobytes, static_cast<size_t>(std::distance(begin(fds), end(fds)))};
}

TEST_F(World, LastsWithoutGrowing)
{
    const std::string trap = R"("trap_info": {"fault_present_var_id": 1, "specific_start": 1})";
    card_files("demo",
               document({{"a", FAM + ".1", {{1, 50}}, {{1, 1, 0, 9}, {2, 3, 0, 200}}}},
                        {{"b", FAM + ".2", {}, {{0, 1, 1, 2}}, trap}},
                        R"("trap_var_bindings": [{"oid": [1, 3, 6], "specific": "1-9"}],)"));
    flash_folder("FAM", 2);
    agents_start(&w);
    chassis_start(&w, played_card(1, "demo", "FAM"));
    words_t all = {SNMPD};
    for (int i = 1; i <= 50; i++) {
        all.push_back(FAM + ".1.1." + std::to_string(1 + i % 2) + "." + std::to_string(i) + ".1");
    }
    /* The newer card takes the tables over and leaves them again. */
    const auto newer = client_update(TPG_MSG_LIBMIB_REGISTER, 2, "demo", "FAM", 9,
                                     std::string(CARDS) + "/libmib_demo.so");
    const auto rounds = [&](int number, int gets) {
        for (int i = 0; i < number; i++) {
            const int fd = client_connect();
            EXPECT_TRUE(client_update_acked(fd, newer));
            close(fd);
        }
        for (int i = 0; i < gets; i++) {
            EXPECT_EQ(snmp("snmpget", all).vars.size(), 50U);
        }
        EXPECT_TRUE(wait_for([&] { return cells(FAM + ".2") == "1.1.1=2"; }));
    };
    rounds(20, 4);
    const auto before = resources(w);
    rounds(200, 40);
    const auto after = resources(w);
    EXPECT_EQ(after.second, before.second);
#ifndef __SANITIZE_ADDRESS__ /* which keeps freed memory for a while */
    EXPECT_LT(after.first - before.first, 1500);
#endif
}
