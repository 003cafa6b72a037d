/* The agent as a process: its start and end, its master agent, its clients. */

#include "world.h"

#include <poll.h>
#include <regex>

namespace fs = std::filesystem;

static const std::string FAM = "1.3.6.1.4.1.32473.7", ONE = "1.1.1.";

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
        EXPECT_EQ(log_count(w, "set the environment variable BASE_BOARD to 3100KX or 3101KX"), 1);
        EXPECT_FALSE(fs::exists(TPG_SVR_PATH));
    }
    tpg_start(&w, {"-L", "?"}, "3101KX", false);
    EXPECT_EQ(proc_end(&w.tpg, 0), 255);
    EXPECT_EQ(log_count(w, "snmp_log_options ? failed!"), 1);
}

/* Where an agent would abort at once, or end at the socket that another one has. */
TEST_F(World, HelpAndVersionAreAllThatSuchAWordBrings)
{
    const int taken = unix_socket(TPG_SVR_PATH, true);
    const std::pair<std::string, std::string> cases[] = {{"--help", "Usage: BASE_BOARD="},
                                                         {"--version", "tpg 1."}};
    for (const auto& [word, text] : cases) {
        proc_t tool = proc_start("tool", words_t{"env", "-u", "BASE_BOARD"} + runner() +
                                             words_t{TPG_BIN, "-z", word});
        EXPECT_EQ(proc_end(&tool, 0), 0);
        EXPECT_EQ(read_file(tool.log), "");
        EXPECT_TRUE(read_file(tool.output).starts_with(text)) << read_file(tool.output);
    }
    pollfd untouched = {taken, POLLIN, 0};
    EXPECT_EQ(poll(&untouched, 1, 0), 0);
    fs::remove(TPG_SVR_PATH);
    tpg_start(&w, {"-z", "--debug", "status", "--help=x", "-t"});
    EXPECT_EQ(log_count(w, "is ignored") + log_count(w, "invalid option"), 5);
    for (const std::string what :
         {"option -z", "option --debug", "argument status", "option --help=x", "option -t"}) {
        EXPECT_EQ(log_count(w, ": " + what + " is ignored"), 1) << what;
    }
}

TEST_F(World, HangupReadsTheDebugMarkerAnew)
{
    tpg_start(&w);
    const char* marker = "/tmp/.tpg_debug";
    for (int round = 1; round <= 2; round++) {
        write_file(marker, "");
        kill(w.tpg.pid, SIGHUP);
        EXPECT_TRUE(log_has(w, "log level is 7: /tmp/.tpg_debug exists", round));
        fs::remove(marker);
        kill(w.tpg.pid, SIGHUP);
        EXPECT_TRUE(log_has(w, "log level is 6: /tmp/.tpg_debug does not exist", round));
    }
    EXPECT_TRUE(client_update_acked(client_connect(), card(3)));
}

static int second_agent()
{
    proc_t second = proc_start("second", words_t{"env", "BASE_BOARD=3101KX"} + runner() +
                                             words_t{TPG_BIN, "-D", "agentx"});
    const int status = proc_end(&second, 0);
    const std::string log = read_file(second.log);
    EXPECT_TRUE(has(log, "another agent answers on /tmp/.tpg_svr")) << log;
    EXPECT_EQ(log.find("|Error"), log.rfind("|Error"));
    EXPECT_FALSE(has(log, "agentx/")) << log; /* it has not spoken to the master */
    return status;
}

TEST_F(World, AgentsLeaveEachOthersSocketAlone)
{
    card_start(&w);
    EXPECT_EQ(second_agent(), 255);
    kill(w.tpg.pid, SIGSTOP);
    EXPECT_EQ(second_agent(), 255);
    kill(w.tpg.pid, SIGCONT);
    EXPECT_TRUE(client_update_acked(client_connect(), card(3)));
    expect_cells(FAM, ONE + "3=3");
    EXPECT_EQ(proc_end(&w.tpg, SIGKILL), -SIGKILL); /* what it leaves is nobody's */
    tpg_start(&w);
    fs::remove(TPG_SVR_PATH);
    const int others = unix_socket(TPG_SVR_PATH, true);
    EXPECT_EQ(proc_end(&w.tpg), 0);
    EXPECT_TRUE(fs::exists(TPG_SVR_PATH));
    close(others);
    tpg_start(&w);
}

TEST_F(World, OptionsSwitchTracesOn)
{
    const std::string tokens = "a,b,c,d,e,readcb," + std::string(40, 'x') + ",h,i";
    card_start(&w, {"-d", "one", "-d", tokens, "-D", "jsonmib", "-Lf", "/tmp/run/own", "-z"});
    const int fd = client_connect();
    EXPECT_TRUE(client_update_acked(fd, card(3)));
    EXPECT_TRUE(log_has(w, "tpg_svr_conn_readcb(): enter, state=0"));
    EXPECT_EQ(log_count(w, "Registering net-snmp debug tokens jsonmib"), 1);
    EXPECT_EQ(log_count(w, "|Debug"), 0);
    expect_cells(FAM, ONE + "3=3");
    const auto before = fs::file_size("/tmp/run/own");
    EXPECT_EQ(get(FAM + "." + ONE + "3"), "INTEGER: 3");
    const std::string own = read_file("/tmp/run/own").substr(before); /* the request's whole way */
    EXPECT_LT(own.find(">>>Entering jsonmib_table_get_first_data_point"),
              own.find(">>>Entering jsonmib_gen_table_helper_handler"));
    EXPECT_EQ(read_file("/tmp/run/tpg.out"),
              "option -d: one\nDebug tokens total=1\nkk=0, one\noption -d: " + tokens +
                  "\nDebug tokens total=8\nkk=0, a\nkk=1, b\nkk=2, c\nkk=3, d\nkk=4, e\n"
                  "kk=5, readcb\nkk=6, " +
                  std::string(31, 'x') + "\nkk=7, h\n");
    /* A payload that comes in part is thrown away: what comes next is read from its beginning on.
     */
    const std::string whole = bytes_of(card(4));
    const int slow = client_connect();
    client_send(slow, whole.substr(0, 100));
    EXPECT_TRUE(log_has(w, "Not enough payload, break"));
    client_send(slow, whole.substr(sizeof(com_msg_head_t)));
    EXPECT_TRUE(log_has(w, "Same/older version 1.1.0 on slot 4"));
}

/* What the iterator's callbacks say of their way to a row: of each step one letter, or the value.
 */
static std::string steps_to(const std::string& oid, const std::string& expected)
{
    const auto before = fs::file_size("/tmp/run/own");
    EXPECT_EQ(get(oid), expected);
    const std::string own = read_file("/tmp/run/own").substr(before);
    const std::regex texts(">>>Entering jsonmib_table_get_(f|n)|(<)<<Leaving jsonmib_table_get|"
                           "increasing index_value to (\\d+)|(reach) the end of index_value|"
                           "(end) of instance index_value|no (next) instance found|"
                           "found next instance index_value (\\d+)|on to the one that is (sought)");
    std::string steps;
    for (std::sregex_iterator at(own.begin(), own.end(), texts), end; at != end; ++at) {
        for (size_t i = 1; i < at->size(); i++) {
            steps += (*at)[i].str();
        }
        steps += " ";
    }
    return steps;
}

TEST_F(World, DebugTextsFollowTheStepsToARow)
{
    card_files("demo", numbered_document(FAM, 1, 3));
    const std::string library = card_library("vast", "demo", numbered_document(FAM, 2, 2000000000));
    agents_start(&w, {"-D", "jsonmib", "-Lf", "/tmp/run/own"});
    const int fd = client_connect();
    EXPECT_TRUE(client_update_acked(fd, card(3)) && client_update_acked(fd, card(7)));
    EXPECT_TRUE(client_update_acked(
        fd, client_update(TPG_MSG_LIBMIB_REGISTER, 8, "demo", "VAST", 1, library)));
    const std::string few = FAM + ".1.1.1.", vast = FAM + ".2.1.1.";
    EXPECT_TRUE(wait_for([&] { return get(few + "1.7") == "INTEGER: 1"; }));
    EXPECT_EQ(steps_to(few + "2.7", "INTEGER: 2"), "f < n 2 < n 3 < n reach 7 < n 2 < ");
    EXPECT_EQ(steps_to(few + "4.7", "No Such Instance currently exists at this OID"),
              "f < n 2 < n 3 < n reach 7 < n 2 < n 3 < n reach next ");
    const std::string far = steps_to(vast + "1999999999.8", "INTEGER: 1999999999");
    EXPECT_TRUE(far.starts_with("f < n 2 < n 3 < ") && far.ends_with(" n 128 < n sought ")) << far;
    EXPECT_EQ(cells(FAM + ".1"), "1.1.1.3=1 1.1.1.7=1 1.1.2.3=2 1.1.2.7=2 1.1.3.3=3 1.1.3.7=3");
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
    write_file("/tmp/.tpg_debug", "");
    card_files("demo", numbered_document(FAM, 1));
    tpg_start(&w);
    chassis_start(&w, played_card(3, "demo", "FAM") + "," + played_card(4, "demo", "FAM"));
    EXPECT_TRUE(log_has(w, "on slot 4 ==> version 1.2.566 on master 3"));
    for (int round = 0; round < 2; round++) {
        snmpd_start(&w);
        expect_cells(FAM, ONE + "3=3 " + ONE + "4=4");
        const int watched = log_count(w, " events, total of ");
        EXPECT_EQ(get(FAM + "." + ONE + "3"), "INTEGER: 3");
        EXPECT_EQ(log_count(w, " events, total of "), watched);
        proc_end(&w.snmpd, SIGKILL);
        chassis(&w, "unplug 4");
        EXPECT_EQ(chassis(&w, "plug 4"), "ok plug 4 sent");
    }
    const std::string log = read_file(w.tpg.log);
    const std::regex summary("added (\\d+) events, removed (\\d+) events, total of (\\d+) events");
    int total = 0, summaries = 0;
    for (std::sregex_iterator at(log.begin(), log.end(), summary), end; at != end; ++at) {
        total += std::stoi((*at)[1]) - std::stoi((*at)[2]);
        EXPECT_EQ(total, std::stoi((*at)[3]));
        summaries++;
    }
    EXPECT_GE(summaries, 4);
}

TEST_F(World, CardsGoWithTheirClients)
{
    card_start(&w);
    chassis_start(&w, played_card(3, "demo", "FAM") + "," + played_card(4, "demo", "FAM"));
    const int first = client_connect(), second = client_connect();
    for (const int slot : {5, 6}) {
        EXPECT_TRUE(client_update_acked(first, card(slot)));
    }
    const std::string switches = flash_folder("FAM", 7); /* of which the card has none */
    EXPECT_TRUE(client_update_acked(second, card(7)));
    expect_cells(FAM, "1.1.1.3=3 1.1.1.4=4 1.1.1.5=5 1.1.1.6=6 1.1.1.7=7");
    EXPECT_TRUE(!fs::exists(switches) && log_count(w, switches) == 0);
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
    EXPECT_EQ(client_head(TPG_MSG_LIBMIB_REGISTER, 196).usReserved, 0x7067); /* as cards in use */
    /* A card of the other byte order has 16 times 12 bytes that are no header. */
    const int foreign = client_connect();
    std::string swapped = bytes_of(card(3));
    for (size_t i = 0; i < sizeof(com_msg_head_t); i += 2) {
        std::swap(swapped[i], swapped[i + 1]);
    }
    client_send(foreign, swapped);
    EXPECT_TRUE(log_has(w, "Invalid header", 16));
    close(foreign);
    const int fd = client_connect();
    const std::string three = bytes_of(card(3));
    client_send(fd, bytes_of(client_head(TPG_MSG_LIBMIB_REGISTER, 100)) + std::string(88, 'x'));
    EXPECT_TRUE(log_has(w, "refused a libmib update of 100 bytes, expected 196"));
    client_send(fd, three.substr(0, 5));
    EXPECT_TRUE(log_has(w, "read 5 bytes, wr_idx=5"));
    client_send(fd, three.substr(5));
    expect_cells(FAM, ONE + "3=3");
    /* Two messages behind three heads that are refused. */
    auto no_pid = client_head(TPG_MSG_LIBMIB_REGISTER, 196);
    no_pid.ulPid = 0;
    no_pid.usReserved = com_msg_parity(&no_pid, TPG_PARITY_KEY);
    auto flipped = client_head(TPG_MSG_LIBMIB_REGISTER, 196);
    flipped.usFlags ^= 1;
    client_send(fd, bytes_of(no_pid) + bytes_of(flipped) + bytes_of(client_head(4, 196)) +
                        bytes_of(card(4)) + bytes_of(card(5)));
    expect_cells(FAM, ONE + "3=3 1.1.1.4=4 1.1.1.5=5");
    EXPECT_EQ(log_count(w, "Invalid header"), 16 + 3);
    /* A message without a payload holds the reader until the next client comes. */
    client_send(fd, bytes_of(client_head(TPG_MSG_TRAP_NOTIFY, 12)) + bytes_of(card(6)));
    EXPECT_TRUE(log_has(w, "Cannot read payload data"));
    EXPECT_TRUE(client_update_acked(client_connect(), card(8)));
    expect_cells(FAM, ONE + "3=3 1.1.1.4=4 1.1.1.5=5 1.1.1.8=8");
}
