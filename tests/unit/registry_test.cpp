/* Slots and families, in front of a recording SNMP side. */

#include "tpg_json.h"
#include "tpg_main_registry.h"
#include "unit.h"

#include <set>

/* What the registry asked for: +n registers slot n, -n unregisters it, pn loads its switches. */
struct cardmib_t {
    std::string calls;
    std::set<uint32_t> failing; /* slots whose document is bad */
    bool partial;               /* a bad one leaves tables behind */
};

static cardmib_t cardmib;
static std::unique_ptr<tpg_context_t> agent;

static void call(const char* what, const tpg_jsonmib_register_info_t* record)
{
    const bool built_in = record == &agent->jsonmib_reg_info_cardmib;
    cardmib.calls += (cardmib.calls.empty() ? "" : " ") + std::string(what) +
                     std::to_string(built_in ? 0 : record - agent->jsonmib_reg_info + 1);
}

int tpg_snmp_register_jsonmib(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                              tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    tpg_jsonmib_register_info_t* record = jsonmib_reginfo;
    EXPECT_EQ(ctx, agent.get());
    EXPECT_EQ(memcmp(libmib_reginfo, &record->libmib_reginfo, sizeof(*libmib_reginfo)), 0);
    call("+", record);
    const bool failed = cardmib.failing.contains(libmib_reginfo->slot_no);
    if (!failed || cardmib.partial) {
        record->gen_table_reginfo = static_cast<netsnmp_handler_registration**>(malloc(1));
    }
    return failed ? -1 : 0;
}

void tpg_snmp_unregister_jsonmib(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    call("-", jsonmib_reginfo);
    jsonmib_release(ctx, jsonmib_reginfo);
}

int tpg_preload_send_trap_storage(tpg_context_t* ctx, tpg_jsonmib_register_info_t* jsonmib_reginfo)
{
    EXPECT_EQ(ctx, agent.get());
    call("p", jsonmib_reginfo);
    json_object_put(jsonmib_reginfo->sendtrap_json_db);
    jsonmib_reginfo->sendtrap_json_db = json_object_new_object();
    return 0;
}

/* A card; the digits of version are its major and minor revision and its build. */
static tpg_libmib_update_t card(uint32_t slot, uint32_t version, const std::string& family = "fam")
{
    tpg_libmib_update_t update = {};
    set_text(update.prod_string, "prod");
    set_text(update.prod_family, family);
    set_text(update.libmib_path, "/opt/libmib.so");
    update.slot_no = static_cast<uint8_t>(slot);
    update.major_rev = static_cast<uint8_t>(version / 100);
    update.minor_rev = static_cast<uint8_t>(version / 10 % 10);
    update.build_number = version % 10;
    return update;
}

/* "2=2,5" is a master and whom it serves, "5>2" a card and its master, "7!" an orphan. */
static std::string state()
{
    std::string text;
    for (const tpg_jsonmib_register_info_t& record : agent->jsonmib_reg_info) {
        const tpg_jsonmib_register_info_t* master = record.actual_reginfo;
        if (record.libmib_reginfo.slot_no == 0 && master == nullptr) {
            continue;
        }
        text += (text.empty() ? "" : " ") + std::to_string(&record - agent->jsonmib_reg_info + 1);
        if (record.slot_ref_mask == 0) {
            text += master == nullptr ? "!"
                                      : ">" + std::to_string(master - agent->jsonmib_reg_info + 1);
            continue;
        }
        EXPECT_EQ(master, &record);
        char mark = '=';
        for (uint32_t n = 0; n < 32; n++) {
            if ((record.slot_ref_mask & (1U << n)) != 0) {
                text += mark + std::to_string(n);
                mark = ',';
            }
        }
    }
    return text;
}

struct registry : testing::Test {
    std::string log;
    void SetUp() override
    {
        agent = new_context();
        cardmib = {};
    }
    void TearDown() override
    {
        jsonmib_release(agent.get(), &agent->jsonmib_reg_info_cardmib);
        for (tpg_jsonmib_register_info_t& record : agent->jsonmib_reg_info) {
            jsonmib_release(agent.get(), &record);
        }
    }
    template <typename operation_t> std::string run(operation_t operation, tpg_libmib_update_t card)
    {
        cardmib.calls.clear();
        log = log_of([&] { operation(agent.get(), &card); });
        return cardmib.calls;
    }
    /* Steps, one a line: "in" or "out" with slot, version, family; what it called, or the state. */
    void play(const std::string& script)
    {
        std::istringstream lines(script);
        for (std::string line; std::getline(lines, line);) {
            SCOPED_TRACE(line);
            const size_t bar = line.find('|');
            std::istringstream words(line.substr(0, bar));
            const std::string expected =
                bar == std::string::npos ? "" : line.substr(std::min(bar + 2, line.size()));
            std::string verb;
            std::string family = "fam";
            uint32_t slot = 0;
            uint32_t version = 0;
            words >> verb >> slot >> version >> family;
            const tpg_libmib_update_t update = card(slot, version, family == "-" ? "" : family);
            if (verb == "in") {
                const std::string calls = run(tpg_proc_libmib_register, update);
                EXPECT_EQ(bar == std::string::npos ? "" : calls, expected);
            } else if (verb == "out") {
                EXPECT_EQ(run(tpg_proc_libmib_unregister, update), expected);
            } else if (verb == "log") {
                EXPECT_TRUE(has(log, expected)) << log;
            } else if (verb == "state") {
                EXPECT_EQ(state(), expected);
            } else if (verb == "fail") {
                cardmib.failing.insert(slot);
            } else if (verb == "new") {
                TearDown();
                SetUp();
            }
        }
    }
};

TEST_F(registry, version_order)
{
    std::vector<tpg_libmib_update_t> sorted;
    for (const uint32_t version : {0U, 1U, 9U, 10U, 19U, 21U, 100U, 190U, 200U, 210U, 999U}) {
        sorted.push_back(card(9 - version % 10, version, std::to_string(version)));
    }
    sorted[2].build_number = UINT32_MAX;
    sorted.back().major_rev = 0x80;
    for (size_t a = 0; a < sorted.size(); a++) {
        for (size_t b = 0; b < sorted.size(); b++) {
            EXPECT_EQ(tpg_version_compare(&sorted[a], &sorted[b]), (a > b) - (a < b)) << a << b;
        }
    }
}

TEST_F(registry, masters_and_who_references_them)
{
    play(R"(in 5 120 | +5 p5
in 2 120 | p2
log | Info tpg_proc_libmib_register(2): found master 4
log | Info Same/older version 1.2.0 on slot 2 ==> version 1.2.0 on master 5, slot_ref_mask: 00000024
in 15 119 | p15
in 6 110 fa | +6 p6
state | 2>5 5=2,5,15 6=6 15>5
out 2 120 |
in 9 121 | -5 +9 p9 p5 p15
log | Info [before] slot 9 ctx->jsonmib_reg_info[8].slot_ref_mask: 0
log | re-referencing prod:fam:[1.1.9] slot_no 15 => prod:fam[1.2.1] slot_no 9
state | 5>9 6=6 9=5,9,15 15>9
in 9 121 | -9 +9 p9
log | Info duplicated registeration at slot_no 9
in 5 110 | -5 p5
state | 5>9 6=6 9=5,9 15>9)");
}

/* A family without a name is that of the empty slots, too. */
TEST_F(registry, empty_records_are_re_referenced)
{
    play(R"(in 14 100 - | +14 p14
in 7 100 | +7 p7
in 15 200 - | -14 +15 p15 p1 p2 p3 p4 p5 p6 p8 p9 p10 p11 p12 p13 p14
state | 1>15 2>15 3>15 4>15 5>15 6>15 7=7 8>15 9>15 10>15 11>15 12>15 13>15 14>15 )"
         "15=1,2,3,4,5,6,8,9,10,11,12,13,14,15");
}

TEST_F(registry, a_failed_take_over_falls_back)
{
    play(R"(in 2 100 | +2 p2
in 5 100 | p5
fail 9
in 9 200 | -2 +9 +2 p2 p5
log | Error Failed to register the target for slot 9, fallback to old master 1
log | Info Successfully fallback to master 1, but target slot 9 cannot be registered
state | 2=2,5 5>2 9!
out 9 200 |
log | Error target was not registered yet
in 9 100 alone | +9
log | Error failed to register new target as master
state | 2=2,5 5>2 9!)");
    cardmib.partial = true;
    play("in 9 200 | -2 +9 -9 +2 p2 p5\nstate | 2=2,5 5>2 9!");
    cardmib.failing.insert(2);
    tpg_libmib_update_t newer = card(9, 200);
    EXPECT_DEATH(tpg_proc_libmib_register(agent.get(), &newer),
                 "failed to fallback to old master 1 for slot_no 9");
}

/* The versions that are compared are those of the slots above the candidates. */
TEST_F(registry, successors)
{
    play(R"(in 2 300
in 5 100
in 9 200
out 2 300 | -2 +5 p5 p9
state | 5=5,9 9>5
new
in 2 300
in 5 100
in 9 200
in 10 1 x
out 2 300 | -2 +9 p9 p5
state | 5>9 9=5,9 10=10
in 4 210
in 6 2 y
in 9 210
out 4 210 | -4 +5 p5 p9
new
in 2 300
in 5 100
in 15 200
out 2 300 | -2 +5 p5 p15
state | 5=5,15 15>5
new
in 2 300
in 14 100
in 15 200
out 2 300 | -2 +14 p14 p15
state | 14=14,15 15>14
out 14 100 | -14 +15 p15
in 7 900 x
out 15 200 | -15
state | 7=7
new
in 2 300
in 5 100
in 9 200
fail 5
out 2 300 | -2 +5
state | 5>2 9>2
out 5 100 |
state | 9>2)");
}

TEST_F(registry, requests_that_are_refused)
{
    play("in 2 300 | +2 p2");
    tpg_libmib_update_t other = card(2, 300);
    other.board_sn[15] = 1;
    EXPECT_EQ(run(tpg_proc_libmib_unregister, other), "");
    play(R"(log | Error mismatched libmib_register_info
log | Error my info is product prod:fam version 3.0.0 on slot 2
state | 2=2
out 2 300 | -2
out 2 300 |
in 0 100 | +0 p0
in 3 100 | +3 p3
out 0 100 | -0
state | 3=3)");
    for (const uint32_t slot : {16U, 255U}) {
        EXPECT_EQ(run(tpg_proc_libmib_register, card(slot, 100)) + log, "");
        EXPECT_EQ(run(tpg_proc_libmib_unregister, card(slot, 100)) + log, "");
    }
}

TEST_F(registry, texts_that_must_not_reach_a_shell)
{
    constexpr size_t PRODUCT = offsetof(tpg_libmib_update_t, prod_string);
    constexpr size_t FAMILY = offsetof(tpg_libmib_update_t, prod_family);
    constexpr size_t PATH = offsetof(tpg_libmib_update_t, libmib_path);
    const auto put = [](size_t offset, const std::string& text) {
        tpg_libmib_update_t update = card(4, 100);
        memcpy(reinterpret_cast<char*>(&update) + offset, text.c_str(),
               text.size() + (text.size() % 16 != 0 ? 1 : 0));
        return update;
    };
    std::vector<tpg_libmib_update_t> refused = {put(PRODUCT, std::string(16, 'p')),
                                                put(PRODUCT, "a/b"),
                                                put(PRODUCT, "-a"),
                                                put(FAMILY, std::string(16, 'f')),
                                                put(FAMILY, "../x"),
                                                put(PATH, std::string(128, 'l')),
                                                put(PATH, "-rf")};
    for (const char c : std::string(" ;|&$`'\"<>()*?[]{}\\~!#^\n\t\x01\x7f\xe4")) {
        refused.push_back(put(PRODUCT, std::string("a") + c));
        refused.push_back(put(PATH, std::string("/a") + c + "b"));
    }
    for (const tpg_libmib_update_t& update : refused) {
        for (const auto operation : {tpg_proc_libmib_register, tpg_proc_libmib_unregister}) {
            EXPECT_EQ(run(operation, update), "");
            EXPECT_TRUE(log.starts_with("Error refused a card: ")) << log;
            EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
        }
    }
    EXPECT_EQ(state(), "");
    EXPECT_EQ(run(tpg_proc_libmib_register, put(FAMILY, "a b;")), "+4 p4");
    EXPECT_EQ(run(tpg_proc_libmib_register, put(PATH, "/A-z0.9_/+,:@=%")), "-4 +4 p4");
    EXPECT_EQ(run(tpg_proc_libmib_register,
                  put(offsetof(tpg_libmib_update_t, board_sn), std::string(16, 's'))),
              "-4 +4 p4");
}
