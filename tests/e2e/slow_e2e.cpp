/* Cards whose daemons are slow, silent or gone, beside others: who waits, and who does not. */

#include "daemons.h"
#include "world.h"

#include <numeric>
#include <regex>

static const std::string CARD = "1.3.6.1.4.1.32473.2", PORT = CARD + ".10.1.1.",
                         BOARD = "1.3.6.1.4.1.32473.10.232";
static constexpr int PORTS = 4;
static constexpr int VAR = 101, ALARM_VAR = 200, BOARD_VAR = 39;
static constexpr char FAILED[] = "genError";
static const play_t HANGS = {.usual = deed::lose}, HOLDS = {.usual = deed::late};

/* Cards of one family in any slots, with a table of ports and one of faults. */
class Cards : public World
{
  protected:
    void TearDown() override
    {
        World::TearDown();
        daemons_end(&d);
        EXPECT_EQ(d.overtaken, 0);
    }

    static std::string cell(int slot, int port = 1)
    {
        return PORT + "1." + std::to_string(port) + "." + std::to_string(slot);
    }
    std::string value(int slot, int port = 1)
    {
        const auto index = static_cast<uint32_t>(port - 1);
        return "INTEGER: " + std::to_string(daemon_value(&d, slot, VAR, index));
    }
    /* The cells of the slots, and what to expect of them. */
    std::pair<words_t, std::string> block(const std::vector<int>& slots, int ports = PORTS)
    {
        std::pair<words_t, std::string> cells;
        for (int port = 1; port <= ports; port++) {
            for (const int slot : slots) {
                cells.first.push_back(cell(slot, port));
                cells.second.append(cells.second.empty() ? "" : ", ").append(value(slot, port));
            }
        }
        return cells;
    }
    int seen(int slot)
    {
        return daemon_view(&d, slot).seen;
    }
    bool wait_seen(int slot)
    {
        return wait_for([&] { return seen(slot) > 0; });
    }
    bool wait_read(const words_t& oids, const std::string& values)
    {
        return wait_for([&] { return said(snmp("snmpget", words_t{SNMPD} + oids)) == values; });
    }
    bool wait_read(int slot)
    {
        return wait_read({cell(slot)}, value(slot));
    }
    static proc_t ask(const words_t& oids, const words_t& options = {})
    {
        return snmp_start("snmpget", words_t{"-Cf"} + options + words_t{SNMPD} + oids);
    }
    static proc_t ask_set(int slot)
    {
        return snmp_start("snmpset", {SNMPD, cell(slot), "i", "7"});
    }

    static int plug(int slot)
    {
        const int fd = client_connect();
        client_send(fd, bytes_of(client_update(TPG_MSG_LIBMIB_REGISTER, slot, "demo", "DEMO", 1,
                                               std::string(CARDS) + "/libmib_demo.so")));
        return fd;
    }
    void plug_all(const std::vector<int>& slots)
    {
        for (const int slot : slots) {
            daemon_play(&d, slot);
            plug(slot);
        }
        const auto [oids, values] = block(slots, 1);
        EXPECT_TRUE(wait_read(oids, values));
    }
    void start(const std::vector<int>& slots)
    {
        card_files("demo", document("ports"));
        agents_start(&w);
        plug_all(slots);
    }

    daemons_t d;
};

TEST_F(Cards, AreAskedSideBySide)
{
    const std::vector<int> slots = {2, 3, 4, 5, 6, 7, 8, 9};
    start(slots);
    const auto [oids, values] = block(slots);
    for (const int slot : slots) {
        daemon_play(&d, slot, {.first = {deed::late}});
    }
    proc_t asked = ask(oids);
    for (const int slot : slots) { /* all have one in flight, none has more */
        EXPECT_TRUE(wait_for([&] { return daemon_view(&d, slot).busy; }));
    }
    for (const int slot : slots) {
        EXPECT_EQ(seen(slot), 1);
        daemon_release(&d, slot);
    }
    EXPECT_EQ(said(snmp_end(&asked)), values);
    for (const int slot : slots) {
        daemon_play(&d, slot, {.delay = 2});
    }
    std::vector<proc_t> managers = {ask(oids), ask(oids)};
    for (const char* tool : {"snmpwalk", "snmpbulkwalk", "snmpbulkwalk"}) {
        managers.push_back(snmp_start(tool, {SNMPD, PORT + "1"}));
    }
    for (proc_t& manager : managers) {
        EXPECT_EQ(said(snmp_end(&manager)), values);
    }
}

TEST_F(Cards, ThatHangDelayNobodyElse)
{
    start({3, 4, 5, 6, 7});
    for (const int slot : {4, 5, 6}) {
        daemon_play(&d, slot, slot == 5 ? HOLDS : HANGS);
    }
    std::vector<proc_t> hung = {ask({cell(4)}, {"-t", "1", "-r", "5"}),
                                ask({cell(5), cell(5, 2), cell(3), cell(5, 3)}),
                                snmp_start("snmpbulkget", {"-Cr3", SNMPD, PORT + "1.1.5"})};
    EXPECT_TRUE(wait_seen(4) && wait_seen(5) && wait_seen(6));
    EXPECT_EQ(get(cell(3)), value(3));
    EXPECT_EQ(get(cell(7)), value(7));
    for (const proc_t& one : hung) {
        EXPECT_TRUE(running(one));
    }
    for (proc_t& one : hung) { /* what waited behind one that failed fails with it */
        EXPECT_EQ(said(snmp_end(&one)), FAILED);
    }
    EXPECT_LE(seen(4), 2); /* a retry may have come too late for the first answer */
    EXPECT_EQ(seen(5), 1);
    daemon_release(&d, 5);
    for (const int slot : {5, 4, 6}) {
        EXPECT_GE(log_count(w, "ipc timeout on slot_no " + std::to_string(slot)), 1);
        daemon_play(&d, slot);
        EXPECT_TRUE(wait_read(slot));
    }
    EXPECT_EQ(log_count(w, "AgentX master disconnected us"), 0);
}

TEST_F(Cards, ThatHangInASetLeaveTheRestServed)
{
    start({3, 4, 5});
    snmptrapd_start(&w);
    daemon_play(&d, 4, HANGS);
    daemon_play(&d, 5, HOLDS);
    EXPECT_EQ(get(cell(5)), FAILED);
    for (int round = 0; round < 2; round++) { /* also behind one that is out still */
        EXPECT_EQ(said(snmp("snmpget", {"-t", "3", SNMPD, cell(5)})), FAILED);
    }
    proc_t asked = ask_set(4);
    EXPECT_TRUE(wait_seen(4));
    const int brief = client_connect();
    client_send(brief, notify(3, ALARM_VAR, 1));
    close(brief);
    EXPECT_TRUE(wait_for([] { return traps().size() == 1; }));
    daemon_release(&d, 5);
    EXPECT_TRUE(wait_for([&] { return daemon_view(&d, 5).heard; }));
    daemon_play(&d, 5);
    daemon_play(&d, 6);
    const int seventh = plug(7);
    client_send(seventh, notify(7, ALARM_VAR, 2) + notify(7, ALARM_VAR, 3));
    close(seventh);
    plug(6);
    EXPECT_TRUE(running(asked));
    EXPECT_EQ(said(snmp_end(&asked)), FAILED);
    EXPECT_TRUE(wait_read(6));
    EXPECT_TRUE(wait_for([] { return traps().size() == 3; })); /* with the card of slot 7 */
    EXPECT_TRUE(wait_for([&] {
        return gets(PORT, "1.1.5 1.1.7") ==
               value(5) + ", No Such Instance currently exists at this OID";
    }));
    EXPECT_EQ(set(cell(3), "i", "77"), "");
    EXPECT_EQ(get(cell(3)), "INTEGER: 77");
}

/* A request whose answer is lost or late, and one behind it. */
struct lost_t {
    enum { get, set, silent_set } first; /* of port 1; the last: to a slot that is silent already */
    deed fate;
    enum { get_too, set_too, refused_set } then;
    int port;        /* of the second */
    int connections; /* that it takes to tell the answers apart */
    play_t play = {};
    bool released = false; /* the first answer comes before the second request */
};

class LostAnswers : public Cards
{
  protected:
    /* A case for each slot from 2 on; the reads that fail are waited for together. */
    void expect_right(const std::vector<lost_t>& cases)
    {
        std::vector<int> slots(cases.size());
        std::iota(slots.begin(), slots.end(), 2);
        const auto case_of = [&](int slot) { return cases[static_cast<size_t>(slot - 2)]; };
        start(slots);
        words_t writes = {SNMPD};
        for (const int slot : slots) {
            daemon_play(&d, slot, case_of(slot).play);
            writes = writes + words_t{cell(slot, 3), "i", "3"};
        }
        EXPECT_EQ(snmp("snmpset", writes).error, "");
        const auto [oids, values] = block(slots);
        EXPECT_TRUE(wait_read(oids, values)); /* by now both kinds of answers are known */
        std::vector<proc_t> asked;
        for (const int slot : slots) {
            const lost_t one = case_of(slot);
            const bool silent = one.first == lost_t::silent_set;
            play_t play = one.play;
            play.first = silent ? std::vector{deed::lose, one.fate} : std::vector{one.fate};
            daemon_play(&d, slot, play);
            if (one.first != lost_t::set) {
                asked.push_back(ask({cell(slot, silent ? 4 : 1)}));
            }
        }
        for (proc_t& one : asked) {
            EXPECT_EQ(said(snmp_end(&one)), FAILED);
        }
        for (const int slot : slots) {
            const auto first = case_of(slot).first;
            EXPECT_EQ(first == lost_t::get ? FAILED : set(cell(slot), "i", "11"), FAILED);
            EXPECT_EQ(seen(slot), first == lost_t::silent_set ? 2 : 1) << slot;
        }
        for (const int slot : slots) {
            SCOPED_TRACE(slot);
            expect_second(slot, case_of(slot));
        }
    }

  private:
    /* It may fail as long as the first one may still be answered, and is never answered wrong. */
    void expect_second(int slot, const lost_t& one)
    {
        play_t play = one.play;
        play.error = one.then == lost_t::refused_set ? 3 : 0;
        daemon_play(&d, slot, play);
        if (one.released) {
            daemon_release(&d, slot);
        }
        EXPECT_TRUE(wait_for([&] {
            const bool gets = one.then == lost_t::get_too;
            const std::string oid = cell(slot, one.port), right = gets ? value(slot, one.port) : "",
                              text = gets ? get(oid) : set(oid, "i", "22");
            EXPECT_TRUE(text == FAILED || (text == right && play.error == 0)) << text;
            return play.error == 0 ? text == right : seen(slot) > 0;
        }));
        EXPECT_EQ(daemon_view(&d, slot).connections, one.connections);
        daemon_play(&d, slot, one.play);
        EXPECT_EQ(set(cell(slot), "i", "44"), "");
        EXPECT_EQ(get(cell(slot)), "INTEGER: 44");
        EXPECT_EQ(get(cell(slot, 2)), value(slot, 2));
    }
};

static const play_t NAMELESS = {.echoes = false}, ONE_TYPE = {.set_type = UEVGEND_MSG_GET};

TEST_F(LostAnswers, OfGetsHarmNothing)
{
    expect_right({{lost_t::get, deed::lose, lost_t::get_too, 1, 1},
                  {lost_t::get, deed::lose, lost_t::set_too, 1, 1},
                  {lost_t::get, deed::lose, lost_t::refused_set, 2, 1},
                  {lost_t::get, deed::late, lost_t::get_too, 1, 1},
                  {lost_t::get, deed::late, lost_t::refused_set, 1, 1},
                  {lost_t::get, deed::late, lost_t::get_too, 2, 1},
                  {lost_t::get, deed::late, lost_t::refused_set, 1, 1, {}, true},
                  {lost_t::get, deed::late, lost_t::refused_set, 1, 2, ONE_TYPE},
                  {lost_t::get, deed::lose, lost_t::set_too, 1, 2, ONE_TYPE},
                  {lost_t::get, deed::late, lost_t::get_too, 2, 2, NAMELESS}});
}

TEST_F(LostAnswers, OfSetsHarmNothing)
{
    expect_right({{lost_t::set, deed::late, lost_t::refused_set, 1, 2},
                  {lost_t::silent_set, deed::lose, lost_t::set_too, 1, 2},
                  {lost_t::silent_set, deed::lose, lost_t::get_too, 1, 1},
                  {lost_t::silent_set, deed::late, lost_t::get_too, 1, 1},
                  {lost_t::silent_set, deed::late, lost_t::get_too, 1, 2, ONE_TYPE},
                  {lost_t::silent_set, deed::late, lost_t::refused_set, 2, 1},
                  {lost_t::silent_set, deed::late, lost_t::refused_set, 1, 1, {}, true}});
}

TEST_F(Cards, CostOneAnswerWhenTheirDaemonCloses)
{
    start({3, 4});
    daemon_play(&d, 3, HOLDS);
    daemon_play(&d, 4);
    proc_t lost = ask({cell(3), cell(4)});
    EXPECT_TRUE(wait_seen(3));
    proc_t kept = ask({cell(3, 2), cell(4, 2)});
    EXPECT_TRUE(wait_for([&] { return seen(4) == 2; })); /* now both wait for slot 3 */
    daemon_play(&d, 3);
    daemon_close(&d, 3);
    EXPECT_EQ(said(snmp_end(&lost)), FAILED);
    EXPECT_EQ(said(snmp_end(&kept)), value(3, 2) + ", " + value(4, 2));
    EXPECT_EQ(daemon_view(&d, 3).connections, 2);
    EXPECT_TRUE(log_has(w, "recv from slot_no 3 failed. request 152 bytes but received 0 bytes."));

    daemon_close(&d, 3, true);
    EXPECT_EQ(gets(PORT, "1.1.3 1.1.3"), "genError, genError");
    EXPECT_TRUE(log_has(w, "slot_no 3 ipc is down"));
    write_file("/tmp/.uevgend_svr3", "");
    EXPECT_EQ(get(cell(3)) + set(cell(3), "i", "1"), "genErrorgenError");
    EXPECT_EQ(log_count(w, "connect slot_no 3 failed, Connection refused"), 2);
    remove("/tmp/.uevgend_svr3");
    daemon_play(&d, 3, {.delay = 300});
    EXPECT_EQ(get(cell(3)), value(3));
}

/* Registering lets the library read what the event loop has reported, too. */
TEST_F(Cards, ComeInTheSameTurnAsARequest)
{
    start({3});
    const std::regex request_waits(":02C1 01 [0-9A-F]{8}:(?!0{8})"); /* from port 705 */
    const std::string other = CARD + ".20", library = "/libmib_other.so";
    card_library("other", "other", numbered_document(other, 1));
    const int card = client_connect();
    EXPECT_TRUE(log_has(w, "Accepted Connection FD", 3));
    kill(w.tpg.pid, SIGSTOP);
    EXPECT_TRUE(wait_for_text("/proc/" + std::to_string(w.tpg.pid) + "/stat", ") T "));
    client_send(card, bytes_of(client_update(TPG_MSG_LIBMIB_REGISTER, 6, "other", "OTHER", 1,
                                             CARDS + library)));
    proc_t asked = ask({cell(3)});
    EXPECT_TRUE(
        wait_for([&] { return std::regex_search(read_file("/proc/net/tcp"), request_waits); }));
    kill(w.tpg.pid, SIGCONT);
    EXPECT_EQ(said(snmp_end(&asked)), value(3));
    EXPECT_TRUE(wait_read({other + ".1.1.1.6"}, "INTEGER: 6"));
    EXPECT_EQ(log_count(w, "AgentX master disconnected us"), 0);
}

TEST_F(Cards, AreBackAfterTheMasterDiedWithCellsWaiting)
{
    start({3, 4, 5});
    std::vector<proc_t> managers =
        managers_start({"snmpget " + cell(3), "snmpbulkget " + CARD + ".11"});
    for (const int slot : {4, 5}) { /* with GETs, with a SET */
        daemon_play(&d, slot, HANGS);
        proc_t asked = slot == 4 ? ask({cell(4), cell(3), cell(4, 2)}) : ask_set(5);
        EXPECT_TRUE(wait_seen(slot));
        proc_end(&w.snmpd, SIGKILL);
        snmpd_start(&w);
        EXPECT_TRUE(wait_read(3));
        daemon_play(&d, slot);
        EXPECT_TRUE(wait_read(slot));
        proc_end(&asked, SIGKILL);
    }
    managers_end(&managers);
}

TEST_F(Cards, DoNotHoldTheAgentsEndUp)
{
    start({3, 4});
    for (const bool set : {false, true}) {
        if (set) {
            tpg_start(&w);
            plug_all({3, 4});
        }
        daemon_play(&d, 3, HANGS);
        daemon_play(&d, 4, HANGS);
        std::vector<proc_t> asked;
        for (const int slot : {3, 4, 3}) {
            asked.push_back(set ? ask_set(slot) : ask({cell(slot), cell(3, 2), cell(4, 2)}));
        }
        EXPECT_TRUE(wait_for([&] { return seen(3) + seen(4) == (set ? 1 : 2); }));
        kill(w.tpg.pid, SIGTERM);
        EXPECT_TRUE(
            wait_for([&] { return !running(w.tpg); }, 4)); /* before the cards' time is up */
        EXPECT_EQ(proc_end(&w.tpg, 0), 0);
        for (proc_t& ask : asked) {
            proc_end(&ask, SIGKILL);
        }
    }
}

TEST_F(Cards, ThatCannotBeReadEndAWalkUnlessToldOtherwise)
{
    start({3, 4, 5, 6, 7});
    const auto break_some = [&] {
        daemon_play(&d, 4, HOLDS);
        daemon_close(&d, 5, true);
        daemon_play(&d, 6, {.error = 3});
    };
    break_some();
    std::vector<proc_t> asked;
    for (const int slot : {3, 4, 5, 6}) { /* the next one is asked for */
        asked.push_back(snmp_start("snmpgetnext", {SNMPD, cell(slot)}));
    }
    for (size_t i = 0; i < asked.size(); i++) {
        EXPECT_EQ(said(snmp_end(&asked[i])), i < 3 ? FAILED : value(7));
    }

    EXPECT_EQ(proc_end(&w.tpg), 0);
    write_file("/tmp/conf/card_agentx.conf", "skipUnreadable yes\nskipUnreadable 1\n");
    tpg_start(&w);
    EXPECT_TRUE(log_has(w, "skipUnreadable is \"yes\" or \"no\", not \"1\""));
    plug_all({3, 4, 5, 6, 7});
    break_some();
    const std::string values = block({3, 7}).second;
    for (const char* tool : {"snmpwalk", "snmpbulkwalk", "snmpwalk"}) {
        EXPECT_EQ(said(snmp(tool, {SNMPD, PORT + "1"})), values);
    }
    EXPECT_EQ(gets(PORT, "1.1.4 1.1.5 1.1.6"), "genError, genError, genError");
    daemon_release(&d, 4);
    for (const int slot : {4, 5, 6}) {
        daemon_play(&d, slot);
    }
    const std::string all = block({3, 4, 5, 6, 7}).second;
    EXPECT_TRUE(wait_for([&] { return said(snmp("snmpwalk", {SNMPD, PORT + "1"})) == all; }));
}

TEST_F(Cards, AndTheBoardDoNotWaitForEachOther)
{
    constexpr char NONE[] = "No Such Instance currently exists at this OID";
    constexpr size_t UNASKED = 3 * 15 + 8 + 21; /* cells that are numbers of rows */
    daemon_play(&d, 1);
    start({3, 4});
    const std::string oid = BOARD + ".4.1.0";
    const std::string fine = "INTEGER: " + std::to_string(daemon_value(&d, 1, BOARD_VAR, 0));
    EXPECT_EQ(get(oid), fine);
    daemon_play(&d, 1, HOLDS);
    proc_t asked = ask({oid, cell(3), BOARD + ".4.2.0"});
    EXPECT_TRUE(wait_seen(1));
    EXPECT_EQ(get(cell(4)), value(4));
    EXPECT_TRUE(running(asked));
    EXPECT_EQ(said(snmp_end(&asked)), std::string(NONE) + ", " + value(3) + ", " + NONE);
    EXPECT_EQ(snmp("snmpwalk", {SNMPD, BOARD}).vars.size(), UNASKED);

    daemon_play(&d, 4, HANGS);
    asked = ask({cell(4)});
    EXPECT_TRUE(wait_seen(4));
    daemon_release(&d, 1);
    daemon_play(&d, 1);
    EXPECT_EQ(get(oid), fine);
    EXPECT_TRUE(running(asked));
    proc_end(&asked, SIGKILL);
}
