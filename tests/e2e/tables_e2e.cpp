/* Reading and writing the cells of card tables. */

#include "world.h"

static const std::string CARD = "1.3.6.1.4.1.32473.2", PORT = CARD + ".10.1.1.",
                         GRID = CARD + ".10.2.1.", UNIT = CARD + ".10.3.1.",
                         ALARM = CARD + ".11.1.1.", WIDE = CARD + ".11.2.1.",
                         VAST = CARD + ".11.3.1.";
static void demo_start(world_t* w, const std::string& cards)
{
    card_files("demo", document("kinds"));
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
    demo_start(&w, played_card(1, "demo", "DEMO") + "," +
                       played_card(5, "demo", "DEMO", R"(, "values": {"102": 3, "103": 0,
        "104:1": "up link", "105": "other", "106": -2147483648, "122": 42, "130": -3})"));
    requests(&w, 5);
    EXPECT_EQ(gets(PORT, "1.2.5 2.2.5"), "INTEGER: 2, INTEGER: 5");
    EXPECT_EQ(requests(&w, 5), "");
    EXPECT_EQ(
        gets(PORT, "3.1.5 4.4.5 5.2.5 6.1.5 7.1.5"),
        R"(INTEGER: 3, INTEGER: 1, STRING: "up link", STRING: "other", INTEGER: -2147483648)");
    EXPECT_EQ(gets(CARD, ".10.2.1.3.2.3.5 .10.3.1.1.5"), "INTEGER: 42, INTEGER: -3");
    EXPECT_EQ(requests(&w, 5), "get var=102 index=0 length=4\nget var=103 index=3 length=4\n"
                               "get var=104 index=1 length=32\nget var=105 index=0 length=32\n"
                               "get var=106 index=0 length=4\nget var=122 index=258 length=4\n"
                               "get var=130 index=0 length=4\n");
    EXPECT_EQ(get(PORT + "5.1.1"), "STRING: \"var104-1-0\""); /* the controller's own socket */
    /* An index column elsewhere, columns and rows that are not there. */
    EXPECT_EQ(get(PORT + "8.1.5"), "noAccess");
    for (const char* none : {"10.1.5", "3.5.5", "3.0.5", "3.1.4"}) {
        EXPECT_TRUE(get(PORT + none).starts_with("No Such")) << none;
    }
    EXPECT_EQ(snmp("snmpwalk", {SNMPD, CARD + ".10.2"}).vars.size(), 36U);
    /* Behind the last number of all, wherever it stands, there is no earlier cell. */
    for (const auto& [asked, next] :
         {std::pair{"1.2.3.", "2.1.1.1"}, {"1.1.", "1.2.1.1"}, {"1.", "2.1.1.1"}}) {
        const snmp_t behind = snmp("snmpgetnext", {SNMPD, GRID + asked + "4294967295"});
        ASSERT_EQ(behind.vars.size(), 1U) << behind.error;
        EXPECT_EQ(behind.vars[0].oid, "." + GRID + next) << asked;
    }
    EXPECT_TRUE(chassis(&w, "status \"open").starts_with("error"));
    EXPECT_EQ(chassis(&w, "refuse 5 -9"), "ok refuse 5");
    EXPECT_EQ(gets(PORT, "3.1.5 5.2.5"), "genError, genError");
}

TEST_F(World, ChecksAndWritesEveryKindOfColumn)
{
    demo_start(&w, played_card(5, "demo", "DEMO"));
    /* Cell, type and value | the error, or what the daemon was told. */
    const std::string x33(33, 'x'), y300(300, 'y');
    const std::pair<words_t, std::string> writes[] = {
        {{PORT + "7.1.5", "i", "1"}, "readOnly"},
        {{PORT + "1.1.5", "i", "1"}, "readOnly"},
        {{PORT + "3.1.5", "i", "4"}, "wrongValue"},
        {{PORT + "3.1.5", "i", "-1"}, "wrongValue"},
        {{PORT + "3.1.5", "s", "1"}, "wrongType"},
        {{PORT + "5.1.5", "i", "1"}, "wrongType"},
        {{PORT + "6.1.5", "i", "1"}, "wrongType"},
        {{PORT + "6.1.5", "s", "x"}, "wrongType"},
        {{PORT + "5.1.5", "s", x33}, "wrongLength"},
        {{PORT + "9.1.5", "i", "-1"}, "wrongValue"},
        {{PORT + "3.4.5", "i", "3"}, "set var=102 index=3 length=4 "},
        {{PORT + "4.1.5", "i", "3"}, "set var=103 index=0 length=4 "},
        {{PORT + "4.2.5", "i", "0"}, "set var=103 index=1 length=4 data=00000000"},
        {{PORT + "9.1.5", "i", "2147483647"}, "set var=108 "}, /* the inverted range was repaired */
        {{UNIT + "1.5", "i", "-5"}, "set var=130 index=0 length=4 "},
        {{PORT + "5.2.5", "s", ""}, "set var=104 index=1 length=0 data="},
        {{PORT + "5.2.5", "s", "ab"}, "set var=104 index=1 length=2 data=6162"},
        /* no number, no text: unchecked */
        {{PORT + "6.1.5", "a", "1.2.3.4"}, "set var=105 index=0 length=4 data=01020304"},
        {{CARD + ".11.1.1.1.2.5", "i", "0"}, "set var=200 index=1 length=4 data=ffffffff"},
        {{CARD + ".11.1.1.3.2.5", "s", "ab"}, "set var=201 index=1 length=2 data=6162"},
        {{UNIT + "2.5", "s", y300}, "set var=131 index=0 length=256 data=7979"},
    };
    requests(&w, 5);
    for (const auto& [write, expected] : writes) {
        const std::string error = set(write[0], write[1], write[2]), told = requests(&w, 5);
        EXPECT_TRUE((error + told).starts_with(expected)) << write[0] << write[2] << error << told;
    }
    EXPECT_EQ(gets(PORT, "3.4.5 4.1.5 4.2.5 9.1.5"),
              "INTEGER: 3, INTEGER: 3, INTEGER: 1, INTEGER: 2147483647");
    EXPECT_EQ(gets(UNIT, "1.5 2.5"), "INTEGER: -5, STRING: \"" + y300.substr(0, 256) + "\"");
    chassis(&w, "refuse 5 3");
    EXPECT_EQ(set(PORT + "3.4.5", "i", "1"), "genError");
    EXPECT_EQ(set(PORT + "5.1.5", "s", "z"), "genError");
    EXPECT_TRUE(log_has(w, "hexval: 7a 00"));
    EXPECT_EQ(set(CARD + ".11.1.1.3.2.5", "s", "zz"), "genError");
    EXPECT_TRUE(log_has(w, "var_id 201, index 0x1, value zz"));
}

TEST_F(World, AnswersManyCellsInOnePdu)
{
    demo_start(&w, played_card(3, "demo", "DEMO") + "," + played_card(7, "demo", "DEMO"));
    EXPECT_TRUE(log_has(w, "on slot 7 ==> version 1.2.566 on master 3"));
    words_t all = {SNMPD};
    std::string expected, got;
    for (const std::string slot : {"7", "3"}) {
        for (const std::string port : {"4", "2", "1"}) {
            all = all + words_t{PORT + "1." + port + "." + slot, PORT + "5." + port + "." + slot};
            const std::string index = std::to_string(port[0] - '1');
            expected.append(port).append(" \"var104-" + slot).append("-" + index + "\" ");
        }
    }
    for (const var_t& var : snmp("snmpget", all).vars) {
        got += var.value + " ";
    }
    EXPECT_EQ(got, expected);
    const auto bulk =
        snmp("snmpbulkget", {"-Cn1", "-Cr9", SNMPD, CARD + ".10.3", PORT + "2", GRID + "1"}).vars;
    ASSERT_EQ(bulk.size(), 19U);
    for (const auto& [at, oid] : {std::pair{0, UNIT + "1.3"},
                                  {1, PORT + "2.1.3"},
                                  {2, GRID + "1.1.1.3"},
                                  {15, PORT + "2.4.7"},
                                  {17, PORT + "3.1.3"},
                                  {18, GRID + "1.2.2.3"}}) {
        EXPECT_EQ(bulk[static_cast<size_t>(at)].oid, "." + oid);
    }
    EXPECT_EQ(snmp("snmpset", {SNMPD, PORT + "3.1.3", "i", "1", PORT + "3.1.7", "i", "2",
                               GRID + "3.1.2.3", "i", "77"})
                  .error,
              "");
    /* One bad value keeps all of them from the cards. */
    EXPECT_EQ(snmp("snmpset", {SNMPD, PORT + "3.1.3", "i", "3", PORT + "3.1.7", "i", "9"}).error,
              "wrongValue");
    EXPECT_EQ(chassis(&w, "get 7 102 0"), "ok 2");
    EXPECT_EQ(chassis(&w, "get 3 122 1"), "ok 77");
    EXPECT_EQ(chassis(&w, "get 3 102 0"), "ok 1");
}

TEST_F(World, FaultSwitchesSurviveTheAgent)
{
    const std::string file = flash_folder("DEMO", 4);
    demo_start(
        &w, played_card(4, "demo", "DEMO", R"(, "values": {"200": 0, "202": 3, "201:5": "text"})"));
    requests(&w, 4);
    EXPECT_EQ(gets(ALARM, "1.6.4 2.6.4 3.6.4 4.6.4"),
              R"(INTEGER: 1, INTEGER: 2, STRING: "text", INTEGER: 4)");
    EXPECT_EQ(requests(&w, 4), "get var=200 index=5 length=4\nget var=201 index=5 length=31\n"
                               "get var=202 index=5 length=4\n");
    EXPECT_EQ(set(ALARM + "4.6.4", "i", "1"), "");
    EXPECT_EQ(chassis(&w, "get 4 202 5"), "ok 0");
    requests(&w, 4);
    EXPECT_EQ(set(ALARM + "1.6.4", "i", "1"), "wrongValue");
    EXPECT_EQ(set(ALARM + "2.6.4", "i", "3"), "wrongValue");
    EXPECT_EQ(set(ALARM + "2.6.4", "i", "1") + set(WIDE + "2.3.2.4", "i", "1"), "");
    EXPECT_EQ(requests(&w, 4), "");
    /* Position 4095 is the last; the vast table's is 2^32, which is not 0. */
    EXPECT_EQ(gets("", WIDE + "2.41.96.4 " + WIDE + "2.41.97.4 " + VAST + "2.3.1.4"),
              "INTEGER: 2, tooBig, tooBig");
    for (const std::string& cell : {WIDE + "2.41.97.4", VAST + "2.3.1.4"}) {
        EXPECT_NE(set(cell, "i", "1"), "");
    }
    EXPECT_EQ(get(VAST + "2.1.1.4"), "INTEGER: 2");
    const std::string text = read_file(file);
    EXPECT_TRUE(text.starts_with("{ \"alarmTable\": [ 255, 253, 255, 255")) << text.substr(0, 80);
    EXPECT_TRUE(text.ends_with("255 ] }\n"));
    const size_t wide = text.find("\"wideTable\": [ ") + 15; /* position 2 * 100 + 1 */
    EXPECT_EQ(text.substr(wide + 49 * 5, 13), "255, 253, 255") << text.substr(wide, 300);
    EXPECT_EQ(proc_end(&w.tpg), 0);
    tpg_start(&w);
    ASSERT_TRUE(wait_for([] { return get(ALARM + "2.6.4") == "INTEGER: 1"; }));
    EXPECT_EQ(gets("", WIDE + "2.3.2.4 " + ALARM + "2.5.4"), "INTEGER: 1, INTEGER: 2");
    EXPECT_EQ(set(ALARM + "2.6.4", "i", "2"), "");
    EXPECT_TRUE(read_file(file).starts_with("{ \"alarmTable\": [ 255, 255,"));
}
