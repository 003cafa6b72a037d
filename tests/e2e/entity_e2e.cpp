/* The standard inventory of cards. */

#include "world.h"

#include <regex>

static const std::string ENTITY = "1.3.6.1.2.1.47", COLUMN = ENTITY + ".1.1.1.1.";
static const std::string CONFIG_CHANGE = "1.3.6.1.2.1.47.2.0.1";

/* Cells of a walk over the inventory, which ends at a name that is not above the one before. */
static size_t walked()
{
    return snmp("snmpbulkwalk", {SNMPD, ENTITY}).vars.size();
}

static size_t changes_told()
{
    size_t told = 0;
    for (const std::string& trap : traps()) {
        told += has(trap, CONFIG_CHANGE) ? 1 : 0;
    }
    return told;
}

TEST_F(World, InventoryFollowsTheCards)
{
    write_file("/tmp/conf/card_agentx.conf", "agentXPingInterval 1\nentityMib yes\n");
    card_files("demo", numbered_document("1.3.6.1.4.1.32473.7", 1));
    snmptrapd_start(&w);
    agents_start(&w);
    EXPECT_TRUE(
        wait_for([] { return get(COLUMN + "2.1") == R"(STRING: "chassis with 15 slots")"; }));
    chassis_start(&w, played_card(3, "demo", "FAM", R"(, "serial": "SN3")") + "," +
                          played_card(5, "demo", "FAM"));
    EXPECT_TRUE(wait_for([] { return get(COLUMN + "7.105") == R"(STRING: "card 5")"; }));
    /* Description, container, class, position, revision, serial number, model, replaceable. */
    for (const auto& [index, expected] : std::vector<std::pair<std::string, std::string>>{
             {"1", R"("chassis with 15 slots", 0, 3, -1, "", "", "3100KX", 2)"},
             {"6", R"("slot 5", 1, 5, 5, "", "", "", 2)"},
             {"103", R"("demo card, family FAM", 4, 9, 1, "1.2.566", "SN3", "demo", 1)"}}) {
        std::string served;
        for (const std::string column : {"2.", "4.", "5.", "6.", "10.", "11.", "13.", "16."}) {
            const std::string cell = get(COLUMN + column + index);
            served += (served.empty() ? "" : ", ") + cell.substr(cell.find_last_of(':') + 1);
        }
        EXPECT_EQ(std::regex_replace(served, std::regex("(^|, ) +"), "$1"), expected);
    }
    EXPECT_TRUE(wait_for([] { return changes_told() >= 1; }));
    const std::string then = get(ENTITY + ".1.4.1.0");
    const size_t whole = walked();
    EXPECT_GT(whole, 18U * 14);
    for (int round = 0; round < 5; round++) {
        chassis(&w, "unplug 3");
        EXPECT_TRUE(wait_for([] { return get(COLUMN + "7.103").starts_with("No Such"); }));
        EXPECT_LT(walked(), whole);
        chassis(&w, "plug 3");
        EXPECT_TRUE(wait_for([] { return get(COLUMN + "7.103") == R"(STRING: "card 3")"; }));
    }
    EXPECT_EQ(walked(), whole);
    EXPECT_NE(get(ENTITY + ".1.4.1.0"), then);
    /* Twelve changes are told by few notifications, the last of them too. */
    EXPECT_TRUE(wait_for([] { return changes_told() >= 2; }));
    EXPECT_LT(changes_told(), 8U);
    EXPECT_EQ(set(COLUMN + "14.103", "s", "alias"), "notWritable");
}

TEST_F(World, InventoryIsThereOnRequestOnly)
{
    agents_start(&w);
    EXPECT_EQ(cells(ENTITY) + get(COLUMN + "2.1"),
              "No Such Object available on this agent at this OID");
}
