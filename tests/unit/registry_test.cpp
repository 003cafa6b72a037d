/* Slots and families, in front of a recording SNMP side. */

#include "tpg_main_registry.h"
#include "unit.h"

/* What the registry asked for: +n registers slot n, -n unregisters it, pn loads its switches. */
static std::string calls;
static std::unique_ptr<tpg_context_t> agent;
constexpr int BROKEN = 13; /* the card in this slot has no good document */

static int position(const tpg_jsonmib_register_info_t* record)
{
    return record == &agent->jsonmib_reg_info_cardmib
               ? 0
               : static_cast<int>(record - agent->jsonmib_reg_info + 1);
}

int tpg_snmp_register_jsonmib(tpg_context_t*, tpg_libmib_register_info_t* libmib_reginfo,
                              tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    EXPECT_EQ(memcmp(libmib_reginfo, &jsonmib_reginfo->libmib_reginfo, sizeof(*libmib_reginfo)), 0);
    calls += "+" + std::to_string(position(jsonmib_reginfo)) + " ";
    return position(jsonmib_reginfo) == BROKEN ? -1 : 0;
}

void tpg_snmp_unregister_jsonmib(tpg_context_t*, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    calls += "-" + std::to_string(position(jsonmib_reginfo)) + " ";
}

int tpg_preload_send_trap_storage(tpg_context_t*, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    calls += "p" + std::to_string(position(jsonmib_reginfo)) + " ";
    return 0;
}

/* A card; the digits of version are its major and minor revision and its build. */
static tpg_libmib_update_t card(int slot, uint32_t version, const std::string& family = "fam")
{
    auto update = client_update(TPG_MSG_LIBMIB_REGISTER, slot, "prod", family,
                                static_cast<int>(version / 10 % 10),
                                "/A-z0.9_/+,:@=%") /* all that a shell takes as it stands */
                      .libmib_update;
    set_text(update.board_sn, "0123456789abcdef");
    update.major_rev = static_cast<uint8_t>(version / 100);
    update.build_number = version % 10;
    return update;
}

/* "5>2" is a card and its master; behind a master stands whom it serves, a bit a slot. */
static std::string state()
{
    std::ostringstream text;
    for (const tpg_jsonmib_register_info_t& record : agent->jsonmib_reg_info) {
        if (record.actual_reginfo != nullptr || record.slot_ref_mask != 0) {
            text << position(&record) << ">" << std::dec << position(record.actual_reginfo);
            (record.slot_ref_mask == 0 ? text : text << "/" << std::hex << record.slot_ref_mask)
                << std::dec << " ";
        }
    }
    return text.str();
}

/*
 * Cards that come (+) and go (-) as slot:version:family, then what the last of them called for,
 * and the state.
 */
constexpr const char* STORIES[][3] = {
    {"+5:120 +2:120 +15:119", "p15 ", "2>5 5>5/8024 15>5 "},
    {"+5:900 +2:10 +15:899", "p15 ", "2>5 5>5/8024 15>5 "},
    {"+5:120 +6:110:fa;", "+6 p6 ", "5>5/20 6>6/40 "},
    {"+5:120 +2:120 -2:120", "", "5>5/20 "},
    {"+5:120 +15:119 +9:121", "-5 +9 p9 p5 p15 ", "5>9 9>9/8220 15>9 "},
    {"+5:120 +9:121 +5:110", "-5 p5 ", "5>9 9>9/220 "},
    {"+5:120 +9:121 +9:121", "-9 +9 p9 ", "5>9 9>9/200 "},
    {"+0:100 +3:100", "+3 p3 ", "3>3/8 "},
    {"+0:100 -0:100", "-0 ", ""},
    {"+3:100 +16:100 -16:100 +255:100 -255:100", "", "3>3/8 "},
    {"+2:300 -2:300:x -2:301 -2:200", "", "2>2/4 "},
    {"+2:300 -2:300 -2:300", "", ""},
    /* A family without a name is that of the empty slots, too. */
    {"+14:100: +7:100 +15:200:", "-14 +15 p15 p1 p2 p3 p4 p5 p6 p8 p9 p10 p11 p12 p13 p14 ",
     "1>15 2>15 3>15 4>15 5>15 6>15 7>7/80 8>15 9>15 10>15 11>15 12>15 13>15 14>15 15>15/ff7e "},
    /* A successor's version is that of the slot above it. */
    {"+2:300 +5:100 +9:200 -2:300", "-2 +5 p5 p9 ", "5>5/220 9>5 "},
    {"+2:300 +5:100 +9:200 +10:1:x -2:300", "-2 +9 p9 p5 ", "5>9 9>9/220 10>10/400 "},
    {"+4:210 +5:100 +9:210 +6:2:y +10:1:x -4:210", "-4 +5 p5 p9 ", "5>5/220 6>6/40 9>5 10>10/400 "},
    {"+2:300 +14:100 +15:200 -2:300", "-2 +14 p14 p15 ", "14>14/c000 15>14 "},
    {"+15:200 +7:900:x -15:200", "-15 ", "7>7/80 "},
    /* The switches of all come back with the old master. */
    {"+5:120 +2:119 +13:300", "-5 +13 +5 p2 p5 ", "2>5 5>5/24 "}};

TEST(registry, cards_come_and_go)
{
    for (const auto& [cards, last_calls, last_state] : STORIES) {
        SCOPED_TRACE(cards);
        agent = new_context();
        std::istringstream words(cards);
        for (std::string word; words >> word;) {
            char family[16] = "fam";
            int slot = 0;
            uint32_t version = 0;
            sscanf(word.c_str(), "%*c%d:%u:%15s", &slot, &version, family);
            const auto operation =
                word[0] == '+' ? tpg_proc_libmib_register : tpg_proc_libmib_unregister;
            auto update = card(slot, version, word.ends_with(":") ? "" : family);
            calls.clear();
            log_of([&] { operation(agent.get(), &update); });
        }
        EXPECT_EQ(calls, last_calls);
        EXPECT_EQ(state(), last_state);
    }
}

TEST(registry, texts_that_must_not_reach_a_shell)
{
    const std::string full = "0123456789abcdef", path(128, 'l');
    std::vector<std::vector<std::string>> refused = {
        {full, "f", "/a"},   {"a/b", "f", "/a"}, {"-a", "f", "/a"}, {"p", full, "/a"},
        {"p", "../x", "/a"}, {"p", "f", path},   {"p", "f", "-rf"}};
    for (const char c : std::string(" ;|&$`'\"<>()*?[]{}\\~!#^\n\t\x01\x7f\xe4")) {
        refused.push_back({std::string("a") + c, "f", "/a"});
        refused.push_back({"p", "f", std::string("/a") + c + "b"});
    }
    agent = new_context();
    for (const auto& texts : refused) {
        for (const auto operation : {tpg_proc_libmib_register, tpg_proc_libmib_unregister}) {
            auto update = client_update(TPG_MSG_LIBMIB_REGISTER, 4, texts[0], texts[1], 0, texts[2])
                              .libmib_update;
            calls.clear();
            const std::string log = log_of([&] { operation(agent.get(), &update); });
            EXPECT_TRUE(log.starts_with("Error refused a card: ")) << log;
            EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
            EXPECT_EQ(calls, "");
        }
    }
}
