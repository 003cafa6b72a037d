/* The traps that notifies of cards become, as a trap receiver sees them. */

#include "world.h"

static const std::string CARD = "1.3.6.1.4.1.32473.2", ALARM = CARD + ".11.1.1.2.",
                         TWIN = CARD + ".11.2.1.2.", GRID = CARD + ".11.3.1.2.";
static constexpr int ROW_VAR = 200, GRID_VAR = 210, WIDE_VAR = 220; /* the first has two tables */

/* Cards in the slots 3 and 4, the second served by the first's tables; a client to send with. */
static int demo_start(world_t* w)
{
    card_files("demo", document("traps"));
    agents_start(w);
    snmptrapd_start(w);
    chassis_start(w, played_card(3, "demo", "DEMO") + "," + played_card(4, "demo", "DEMO") + "," +
                         played_card(5, "demo", "DEMO", R"(, "plugged": false)"));
    EXPECT_TRUE(wait_for([] { return get(GRID + "1.1.4") == "INTEGER: 2"; }));
    return client_connect();
}

static std::string trap(uint32_t specific, int slot, const std::string& bindings = "")
{
    const std::string number = std::to_string(slot);
    return "." + CARD + ".0." + std::to_string(specific) + " ." + CARD + ".1." + number +
           "=INTEGER: " + number + bindings;
}

/* The number of a trap follows from the row, and from what the card adds to it. */
TEST_F(World, TrapsAreNumberedByTheirRows)
{
    const int fd = demo_start(&w);
    EXPECT_EQ(chassis(&w, "fault 4 210 0x101 2"), "ok fault 4 210 257");
    expect_traps({trap(1105, 4)});
    const std::string brief = "\x01\x01\x01"; /* too little for an offset */
    client_send(fd, notify(3, 999, 0) + notify(3, ROW_VAR, 6) + notify(3, ROW_VAR, 0x10002));
    client_send(fd, notify(4, ROW_VAR, 3, big_endian(70000)) + notify(3, ROW_VAR, 4, brief));
    client_send(fd, notify(3, GRID_VAR, 0x203) + notify(4, GRID_VAR, 0xff000309, big_endian(1)));
    EXPECT_TRUE(log_has(w, "table 3 var 210 has no row for index 0xff000309. [1:4], [1:10]"));
    EXPECT_EQ(
        log_count(w, "table tpg_fault_table var 200 has no row for index 0x10002. [1:64], [1:15]"),
        1);
    EXPECT_EQ(log_count(w, " has no row for index "), 3); /* the first has two tables */
    EXPECT_EQ(log_count(w, "no fault table of slot_no 3 has var-id 999, no trap"), 1);
    expect_traps({trap(1105, 4), trap(160, 3), trap(5006, 3), trap(120, 3), trap(5002, 3),
                  trap(70130, 4), trap(75003, 4), trap(140, 3), trap(5004, 3), trap(1209, 3),
                  trap(1328, 4)});
}

TEST_F(World, SwitchesHoldTrapsBack)
{
    const int fd = demo_start(&w);
    for (const std::string& cell : {ALARM + "6.4", GRID + "3.4.3", TWIN + "8.3", ALARM + "8.3"}) {
        EXPECT_EQ(set(cell, "i", "1"), "");
    }
    for (const int slot : {4, 3}) { /* the first notify reaches the second table on both */
        client_send(fd, notify(slot, ROW_VAR, 5) + notify(slot, ROW_VAR, 7) +
                            notify(slot, GRID_VAR, 0x0203));
    }
    client_send(fd, notify(3, GRID_VAR, 0x0202));
    words_t expected = {trap(5005, 4), trap(170, 4),  trap(5007, 4), trap(1209, 4),
                        trap(150, 3),  trap(5005, 3), trap(1206, 3)};
    expect_traps(expected);
    for (const auto& [row, count] : {std::pair{"0x5", 1}, {"0x7", 2}, {"0x203", 1}}) {
        EXPECT_EQ(log_count(w, std::string("xxxSendTrap[") + row + "] was disabled"), count);
    }
    EXPECT_EQ(set(ALARM + "6.4", "i", "2"), "");
    client_send(fd, notify(4, ROW_VAR, 5));
    expected.insert(expected.end(), {trap(150, 4), trap(5005, 4)});
    expect_traps(expected);
}

TEST_F(World, TrapsCarryTheBindingsOfTheirNumbers)
{
    const int fd = demo_start(&w);
    EXPECT_EQ(set(TWIN + "1.3", "i", "1"), "");
    const auto send = [fd](int slot, uint32_t offset, uint32_t row, const std::string& text,
                           size_t length = std::string::npos) {
        const std::string data = big_endian(offset) + big_endian(row) + text;
        client_send(fd, notify(slot, ROW_VAR, 0, data.substr(0, length)));
    };
    const auto binding = [](const std::string& rest, const std::string& value) {
        return " ." + CARD + ".20." + rest + "=" + value;
    };
    const std::string two = "STRING: \"two\"", longest(255, 'x');
    send(3, 3, 11, "\3two");
    send(3, 7, 0, "\3two and more");
    send(3, 11, 1, "\1x"); /* one number is no range */
    send(3, 201, 4, std::string(1, '\0'));
    send(3, 5, 1, "\3two", 8); /* cut */
    send(3, 5, 1, "\3two", 11);
    send(4, 6, 2, "\xff" + longest);
    expect_traps({trap(103, 3, binding("1.12.3", two)),
                  trap(107, 3, binding("2.1.3", two) + binding("3.1.1.3", two)), trap(111, 3),
                  trap(301, 3, binding("1.5.3", "\"\"")), trap(105, 3), trap(105, 3),
                  trap(106, 4, binding("2.3.4", "STRING: \"" + longest + "\"")), trap(5006, 4)});
}

TEST_F(World, RefusesNotifiesThatMakeNoTrap)
{
    const int fd = demo_start(&w), errors = log_count(w, "|Error");
    client_send(fd, notify(3, ROW_VAR, 1, "", 4) + notify(3, ROW_VAR, 1, "12345", 1));
    client_send(fd, notify(9, ROW_VAR, 1) + notify(16, ROW_VAR, 1) + notify(0, ROW_VAR, 1));
    client_send(fd, notify(3, WIDE_VAR, 0x1014) + notify(3, ROW_VAR, 4100));
    /* The last position that is taken has the next slot's switch. */
    client_send(fd, notify(3, WIDE_VAR, 0x1013) + notify(3, GRID_VAR, 0));
    expect_traps({trap(7000, 3), trap(1000, 3)});
    for (const char* line :
         {"refused a trap notify of 20 bytes with 0 bytes", "of 28 bytes with 5 bytes of data",
          "no card is registered at slot_no 9", "Invalid slot_no 16", "Invalid slot_no 0",
          "Table 4 var 220: index 0x1014 is out of range. [1:64], [1:255]",
          "Table tpg_fault_table var 200: index 0x1004 is out of range. [1:64], [1:15]"}) {
        EXPECT_EQ(log_count(w, line), 1) << line;
    }
    EXPECT_EQ(log_count(w, "|Error"), errors + 7);
}

/* A client may send and close at once, and its card may be back before the agent has seen that. */
TEST_F(World, WhatCameBeforeTheEndOfAConnectionIsServed)
{
    const int brief = demo_start(&w);
    const std::string filling(950, '\0'),
        update = bytes_of(client_update(TPG_MSG_LIBMIB_REGISTER, 5, "demo", "DEMO", 0,
                                        std::string(CARDS) + "/libmib_demo.so"));
    std::string few, many = update; /* whose acknowledgement nobody will read */
    words_t expected, more;
    for (uint32_t i = 0; i < 100; i++) {
        (i < 5 ? few : many) += notify(i < 5 ? 3 : 5, GRID_VAR, 0, big_endian(i) + filling);
        (i < 5 ? expected : more).push_back(trap(1000 + i, i < 5 ? 3 : 5));
    }
    client_send(brief, few);
    close(brief);
    for (const bool back : {false, true}) {
        expect_traps(expected);
        kill(w.tpg.pid, SIGSTOP);
        const int old = client_connect();
        client_send(old, many); /* more than the agent reads ahead */
        close(old);
        if (back) {
            client_send(client_connect(), update);
        }
        kill(w.tpg.pid, SIGCONT);
        expected = expected + more;
    }
    expect_traps(expected);
    EXPECT_EQ(log_count(w, "Got an error on the connection: Broken pipe"), 1);
    EXPECT_TRUE(log_has(w, "Same/older version 1.0.0 on slot 5", 3));
    EXPECT_EQ(get(GRID + "1.1.5"), "INTEGER: 2");
}
