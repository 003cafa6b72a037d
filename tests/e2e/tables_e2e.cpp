/* Reading and writing the cells of card tables. */

#include "world.h"

#include <cstdio>

static const std::string CARD = "1.3.6.1.4.1.32473.2", PORT = CARD + ".10.1.1.",
                         GRID = CARD + ".10.2.1.", UNIT = CARD + ".10.3.1.",
                         ALARM = CARD + ".11.1.1.", WIDE = CARD + ".11.2.1.";
static constexpr char READ_ONLY[] = R"("read_only": true)";
static constexpr char INDEX[] = R"("read_only": true, "table_index": true)";

/* One table of each shape; the columns' variables are 100 and up. */
static std::string demo_document()
{
    const std::string trap = R"("trap_info": {"fault_present_var_id": 200, "specific_start": 1})";
    const std::vector<column_t> port = {{100, 1, 1, 4, INDEX},
                                        {101, 1, 1, 15, INDEX},
                                        {102, 1, 0, 3},
                                        {103, 2, 0, 3},
                                        {104, 3, 0, 31},
                                        {105, 4, 0, 31},
                                        {106, 1, 0, 9, READ_ONLY},
                                        {107, 1, 0, 9, INDEX},
                                        {108, 2, 5, 1}};
    const std::vector<column_t> grid = {
        {120, 1, 1, 2, INDEX}, {121, 1, 1, 3, INDEX}, {122, 1, 0, 9999}};
    const std::vector<column_t> unit = {{130, 1, -5, 5}, {131, 3, 0, 400}};
    const std::vector<column_t> wide = {{200, 1, 0, 0}, {0, 1, 1, 2}};
    const std::vector<column_t> alarm = {
        {200, 1, 0, 0}, {0, 1, 1, 2}, {201, 3, 0, 31}, {202, 2, 1, 9}};
    return document({{"portTable", CARD + ".10.1", {{1, 4}}, port},
                     {"gridTable", CARD + ".10.2", {{1, 2}, {1, 3}}, grid},
                     {"unitTable", CARD + ".10.3", {}, unit}},
                    {{"alarmTable", CARD + ".11.1", {{1, 64}}, alarm, trap},
                     {"wideTable", CARD + ".11.2", {{1, 64}, {1, 100}}, wide, trap}});
}

static void demo_start(world_t* w, const std::string& cards)
{
    card_files("demo", demo_document());
    agents_start(w);
    chassis_start(w, cards);
    EXPECT_TRUE(log_has(*w, "Registered product demo:DEMO version 1.2.566 on slot"));
}

/* The requests that a card's daemon has seen since the last time. */
static std::string requests(world_t* w, int slot)
{
    std::string text = chassis(w, "requests " + std::to_string(slot) + " clear");
    return text.substr(0, text.rfind("ok"));
}

TEST_F(World, ReadsEveryKindOfColumn)
{
    demo_start(
        &w, played_card(1, "demo", "DEMO") + "," +
                played_card(5, "demo", "DEMO",
                            R"(, "values": {"102": 3, "103": 0, "104:1": "up link", "105": "other",
        "106": -7, "122": 42, "130": -3})"));
    requests(&w, 5);
    EXPECT_EQ(get(PORT + "1.2.5"), "INTEGER: 2");
    EXPECT_EQ(get(PORT + "2.2.5"), "INTEGER: 5");
    EXPECT_EQ(requests(&w, 5), "");
    EXPECT_EQ(get(PORT + "3.1.5"), "INTEGER: 3");
    EXPECT_EQ(get(PORT + "4.4.5"), "INTEGER: 1");
    EXPECT_EQ(get(PORT + "5.2.5"), "STRING: \"up link\"");
    EXPECT_EQ(get(PORT + "6.1.5"), "STRING: \"other\"");
    EXPECT_EQ(get(PORT + "7.1.5"), "INTEGER: -7");
    EXPECT_EQ(requests(&w, 5), "get var=102 index=0 length=4\nget var=103 index=3 length=4\n"
                               "get var=104 index=1 length=32\nget var=105 index=0 length=32\n"
                               "get var=106 index=0 length=4\n");
    EXPECT_EQ(get(GRID + "3.2.3.5"), "INTEGER: 42");
    EXPECT_EQ(get(UNIT + "1.5"), "INTEGER: -3");
    EXPECT_EQ(requests(&w, 5), "get var=122 index=258 length=4\nget var=130 index=0 length=4\n");
    EXPECT_EQ(get(PORT + "5.1.1"), "STRING: \"v104-1-0\""); /* the controller's own socket */
    /* An index column elsewhere, columns and rows that are not there. */
    EXPECT_EQ(get(PORT + "8.1.5"), "noAccess");
    for (const char* none : {"10.1.5", "3.5.5", "3.0.5", "3.1.4"}) {
        EXPECT_TRUE(get(PORT + none).starts_with("No Such")) << none;
    }
    EXPECT_EQ(walk(CARD + ".10.2").size(), 36U);
    EXPECT_EQ(chassis(&w, "refuse 5 -9"), "ok refuse 5");
    EXPECT_EQ(get(PORT + "3.1.5"), "genError");
    EXPECT_EQ(get(PORT + "5.2.5"), "genError");
}

TEST_F(World, ChecksAndWritesEveryKindOfColumn)
{
    demo_start(&w, played_card(5, "demo", "DEMO"));
    const std::string text33(33, 'x');
    const struct {
        const char *cell, *type;
        std::string value;
        const char* error;
    } refused[] = {
        {"7.1.5", "i", "1", "readOnly"},       {"1.1.5", "i", "1", "readOnly"},
        {"3.1.5", "i", "4", "wrongValue"},     {"3.1.5", "i", "-1", "wrongValue"},
        {"3.1.5", "s", "1", "wrongType"},      {"5.1.5", "i", "1", "wrongType"},
        {"6.1.5", "i", "1", "wrongType"},      {"6.1.5", "s", "x", "wrongType"},
        {"5.1.5", "s", text33, "wrongLength"}, {"9.1.5", "i", "-1", "wrongValue"},
    };
    requests(&w, 5);
    for (const auto& one : refused) {
        EXPECT_EQ(set(PORT + one.cell, one.type, one.value), one.error) << one.cell << one.value;
    }
    EXPECT_EQ(requests(&w, 5), "");
    EXPECT_EQ(set(PORT + "3.4.5", "i", "3"), "");
    EXPECT_EQ(chassis(&w, "get 5 102 3"), "ok 3");
    EXPECT_EQ(set(PORT + "4.1.5", "i", "3"), "");
    EXPECT_EQ(chassis(&w, "get 5 103 0"), "ok 2");
    EXPECT_EQ(set(PORT + "4.1.5", "i", "0"), "");
    EXPECT_EQ(chassis(&w, "get 5 103 0"), "ok 0");
    EXPECT_EQ(get(PORT + "4.1.5"), "INTEGER: 1");
    EXPECT_EQ(set(PORT + "9.1.5", "i", "2147483647"), ""); /* the inverted range was repaired */
    EXPECT_EQ(set(UNIT + "1.5", "i", "-5"), "");
    EXPECT_EQ(chassis(&w, "get 5 130 0"), "ok -5");
    requests(&w, 5);
    EXPECT_EQ(set(PORT + "5.2.5", "s", ""), "");
    EXPECT_EQ(set(PORT + "5.2.5", "s", "ab"), "");
    EXPECT_EQ(set(PORT + "6.1.5", "a", "1.2.3.4"), ""); /* no number, no text: unchecked */
    EXPECT_EQ(requests(&w, 5),
              "set var=104 index=1 length=0 data=\nset var=104 index=1 length=2 data=6162\n"
              "set var=105 index=0 length=4 data=01020304\n");
    EXPECT_EQ(set(UNIT + "2.5", "s", std::string(300, 'y')), "");
    EXPECT_TRUE(requests(&w, 5).starts_with("set var=131 index=0 length=256 data=7979"));
    EXPECT_EQ(get(UNIT + "2.5"), "STRING: \"" + std::string(256, 'y') + "\"");
    chassis(&w, "refuse 5 3");
    EXPECT_EQ(set(PORT + "3.4.5", "i", "1"), "genError");
    EXPECT_EQ(set(PORT + "5.1.5", "s", "z"), "genError");
    EXPECT_TRUE(log_has(w, "hexval: 7a 00"));
}

TEST_F(World, AnswersManyCellsInOnePdu)
{
    demo_start(&w, played_card(3, "demo", "DEMO") + "," + played_card(7, "demo", "DEMO"));
    EXPECT_TRUE(log_has(w, "on slot 7 ==> version 1.2.566 on master 3"));
    words_t all = {SNMPD};
    std::string expected;
    for (const char* slot : {"7", "3"}) {
        for (const char* port : {"4", "2", "1"}) {
            all.push_back(PORT + "1." + port + "." + slot);
            all.push_back(PORT + "5." + port + "." + slot);
            expected +=
                std::string(port) + " \"v104-" + slot + "-" + std::to_string(port[0] - '1') + "\" ";
        }
    }
    std::string got;
    for (const var_t& var : snmp("snmpget", all).vars) {
        got += var.value + " ";
    }
    EXPECT_EQ(got, expected);
    const auto bulk =
        snmp("snmpbulkget", {"-Cn1", "-Cr9", SNMPD, CARD + ".10.3", PORT + "2", GRID + "1"}).vars;
    ASSERT_EQ(bulk.size(), 19U);
    EXPECT_EQ(bulk[0].oid, "." + UNIT + "1.3");
    EXPECT_EQ(bulk[1], (var_t{"." + PORT + "2.1.3", "INTEGER", "3"}));
    EXPECT_EQ(bulk[2], (var_t{"." + GRID + "1.1.1.3", "INTEGER", "1"}));
    EXPECT_EQ(bulk[15], (var_t{"." + PORT + "2.4.7", "INTEGER", "7"}));
    EXPECT_EQ(bulk[17].oid, "." + PORT + "3.1.3");
    EXPECT_EQ(bulk[18].oid, "." + GRID + "1.2.2.3");
    EXPECT_EQ(snmp("snmpset", {SNMPD, PORT + "3.1.3", "i", "1", PORT + "3.1.7", "i", "2",
                               GRID + "3.1.2.3", "i", "77"})
                  .error,
              "");
    EXPECT_EQ(chassis(&w, "get 7 102 0"), "ok 2");
    EXPECT_EQ(chassis(&w, "get 3 122 1"), "ok 77");
    /* One bad value keeps all of them from the cards. */
    EXPECT_EQ(snmp("snmpset", {SNMPD, PORT + "3.1.3", "i", "3", PORT + "3.1.7", "i", "9"}).error,
              "wrongValue");
    EXPECT_EQ(chassis(&w, "get 3 102 0"), "ok 1");
}

TEST_F(World, FaultSwitchesSurviveTheAgent)
{
    const std::string file = flash_folder("DEMO", 4);
    demo_start(
        &w, played_card(4, "demo", "DEMO", R"(, "values": {"200": 0, "202": 3, "201:5": "text"})"));
    requests(&w, 4);
    EXPECT_EQ(get(ALARM + "1.6.4"), "INTEGER: 1");
    EXPECT_EQ(set(ALARM + "1.6.4", "i", "1"), "wrongValue");
    EXPECT_EQ(get(ALARM + "2.6.4"), "INTEGER: 2");
    EXPECT_EQ(get(ALARM + "3.6.4"), "STRING: \"text\"");
    EXPECT_EQ(get(ALARM + "4.6.4"), "INTEGER: 4");
    EXPECT_EQ(requests(&w, 4), "get var=200 index=5 length=4\nget var=201 index=5 length=31\n"
                               "get var=202 index=5 length=4\n");
    EXPECT_EQ(set(ALARM + "4.6.4", "i", "1"), "");
    EXPECT_EQ(chassis(&w, "get 4 202 5"), "ok 0");
    EXPECT_EQ(set(ALARM + "2.6.4", "i", "3"), "wrongValue");
    requests(&w, 4);
    EXPECT_EQ(set(ALARM + "2.6.4", "i", "1"), "");
    EXPECT_EQ(set(WIDE + "2.3.2.4", "i", "1"), ""); /* position 2 * 100 + 1 */
    EXPECT_EQ(requests(&w, 4), "");
    EXPECT_EQ(get(WIDE + "2.41.96.4"), "INTEGER: 2"); /* position 4095, the last */
    EXPECT_EQ(get(WIDE + "2.41.97.4"), "tooBig");
    EXPECT_NE(set(WIDE + "2.41.97.4", "i", "1"), "");
    const std::string text = read_file(file);
    EXPECT_TRUE(text.starts_with("{ \"alarmTable\": [ 255, 253, 255, 255")) << text.substr(0, 80);
    EXPECT_TRUE(text.ends_with("255 ] }\n"));
    const size_t wide = text.find("\"wideTable\": [ ") + 15;
    EXPECT_EQ(text.substr(wide + 49 * 5, 13), "255, 253, 255") << text.substr(wide, 300);
    EXPECT_EQ(proc_end(&w.tpg), 0);
    tpg_start(&w);
    ASSERT_TRUE(wait_for([] { return get(ALARM + "2.6.4") == "INTEGER: 1"; }));
    EXPECT_EQ(get(WIDE + "2.3.2.4"), "INTEGER: 1");
    EXPECT_EQ(get(ALARM + "2.5.4"), "INTEGER: 2");
    EXPECT_EQ(set(ALARM + "2.6.4", "i", "2"), "");
    EXPECT_TRUE(read_file(file).starts_with("{ \"alarmTable\": [ 255, 255,"));
}

TEST_F(World, TakesWhatIsLeftOfSwitchFiles)
{
    write_file(flash_folder("DEMO", 2), R"({"other": 1, "alarmTable": [1, 258]})");
    write_file(flash_folder("DEMO", 3), R"({"alarmTable": "x"})");
    write_file(flash_folder("DEMO", 4), "");
    write_file(flash_folder("DEMO", 5), "{ \"alarmTable\": [ 1,");
    std::string cards;
    for (int slot = 2; slot <= 6; slot++) {
        cards += (slot > 2 ? "," : "") + played_card(slot, "demo", "DEMO");
    }
    demo_start(&w, cards);
    EXPECT_TRUE(
        log_has(w, "Failed to load sendtrap db file. Losing persistence storage capability!", 3));
    EXPECT_EQ(cells(ALARM + "2.1"), "2=2 3=2 4=2 5=2 6=2");
    EXPECT_EQ(cells(ALARM + "2.2"), "2=1 3=2 4=2 5=2 6=2");
    EXPECT_EQ(cells(ALARM + "2.6"), "2=2 3=2 4=2 5=2 6=2"); /* 258 is 2 */
    EXPECT_EQ(cells(ALARM + "2.64"), "2=1 3=2 4=2 5=2 6=2");
    EXPECT_EQ(log_count(w, "Invalid json type 6 for table alarmTable"), 1);
    EXPECT_EQ(log_count(w, "Corrupted persistence json file!"), 2);
    EXPECT_EQ(set(ALARM + "2.1.4", "i", "1"), "");
    EXPECT_EQ(get(ALARM + "2.1.4"), "INTEGER: 1");
    EXPECT_EQ(log_count(w, "NULL sendtrap_json_db for table alarmTable of slot 4!"), 1);
    EXPECT_TRUE(read_file(std::string(FLASH) + "/DEMO_slot03/sendtrap.json")
                    .starts_with("{ \"alarmTable\": [ 255, 255"));
}

TEST_F(World, DaemonsThatGoAwayCostOneAnswer)
{
    demo_start(&w, played_card(3, "demo", "DEMO", R"(, "values": {"102": 2})"));
    const std::string cell = PORT + "3.1.3", fine = "INTEGER: 2";
    EXPECT_EQ(get(cell), fine);
    chassis(&w, "close 3");
    EXPECT_EQ(get(cell), "genError");
    EXPECT_TRUE(log_has(w, "recv from slot_no 3 failed. request 152 bytes but received 0 bytes."));
    chassis(&w, "resume 3");
    EXPECT_EQ(get(cell), fine);
    chassis(&w, "down 3");
    EXPECT_EQ(get(cell), "genError");
    EXPECT_EQ(get(cell), "genError");
    EXPECT_TRUE(log_has(w, "slot_no 3 ipc is down"));
    write_file("/tmp/.uevgend_svr3", "");
    EXPECT_EQ(get(cell), "genError");
    EXPECT_EQ(set(cell, "i", "1"), "genError");
    EXPECT_EQ(log_count(w, "connect slot_no 3 failed, Connection refused"), 2);
    remove("/tmp/.uevgend_svr3");
    EXPECT_EQ(chassis(&w, "resume 3"), "ok resume 3");
    EXPECT_EQ(get(cell), fine);
    chassis(&w, "slow 3 300");
    EXPECT_EQ(get(cell), fine);
}

TEST_F(World, DaemonsThatHangDelayOneAnswer)
{
    demo_start(&w, played_card(3, "demo", "DEMO", R"(, "values": {"102": 2, "106": 6})") + "," +
                       played_card(4, "demo", "DEMO"));
    chassis(&w, "hang 3");
    EXPECT_EQ(set(PORT + "3.1.3", "i", "1"), "genError");
    EXPECT_TRUE(log_has(w, "ipc timeout on slot_no 3"));
    EXPECT_EQ(get(PORT + "3.1.4"), "INTEGER: 0");
    chassis(&w, "slow 3 6000"); /* this answer comes when nobody waits for it any more */
    EXPECT_EQ(get(PORT + "3.2.3"), "genError");
    chassis(&w, "resume 3");
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(get(PORT + "7.1.3"), "INTEGER: 6");
        EXPECT_EQ(get(PORT + "3.4.3"), "INTEGER: 2");
    }
    EXPECT_EQ(log_count(w, "Connected to slot_no 3"), 1);
}
