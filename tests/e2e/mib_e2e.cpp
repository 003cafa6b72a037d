/* MIB modules made from documents: what a checker says of them, and managers that go by them. */

#include "world.h"

#include <algorithm>

namespace fs = std::filesystem;

static const std::string TOP = TPG_SOURCE_DIR;

struct made_t {
    int status;
    std::string text, log;
};

/* Makes the module CARD-MIB of a document; leaves it in MODULES. */
static made_t make(const std::string& text, const std::string& option = "--module=CARD")
{
    write_file("/tmp/card.json", text);
    proc_t tool = proc_start("mib", {TPG_JSONMIB_BIN, "mib", option, "/tmp/card.json"});
    const int status = proc_end(&tool, 0);
    clear_folder(MODULES);
    write_file(std::string(MODULES) + "/CARD-MIB.txt", read_file(tool.output));
    return {status, read_file(tool.output), read_file(tool.log)};
}

/* What smilint has to say, but for readable index columns: so they are served. */
static std::string complaints(const std::string& file)
{
    std::istringstream lines(
        run({"env", "SMIPATH=" + TOP + "/scripts/demo/mibs", "smilint", "-l", "5", file}));
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        text += has(line, "should be not-accessible") ? "" : line + "\n";
    }
    return text;
}

/* Members of a table: its name, its OID, and what else it takes. */
static std::string table(const std::string& name, const std::string& arcs,
                         const std::string& columns = R"({"var_id":1,"type":1})")
{
    return R"({"name":")" + name + R"(","oid":[1,3,6,1,4,1,32473,7,)" + arcs +
           R"(],"index_array":[],"param_array":[)" + columns + "]}";
}

static std::string document_of(const std::string& tables)
{
    return R"({"enterprise_oid":[1,3,6,1,4,1,32473,7],"gen_table_array":[)" + tables + "]}";
}

static std::string many_tables()
{
    std::string tables;
    for (int i = 1; i <= 300; i++) {
        tables += (i == 1 ? "" : ",") +
                  table("port " + std::to_string(i % 290), "10," + std::to_string(i));
    }
    return document_of(tables);
}

static std::string example(const std::string& file)
{
    return read_file(TOP + file);
}

TEST_F(World, ModulesHaveNothingWrongInThem)
{
    const struct {
        std::string document;
        words_t parts; /* of the module, without blanks */
    } cases[] = {
        {example("/doc/examples/line2.json"), {"INDEX{linePortIndex,linePortSlot}"}},
        {example("/doc/examples/psu4.json"), {"INDEX{psuModule,psuRail,psuRailSlot}"}},
        {example("/tests/cards/mib_names.json"),
         {"twoWordsTableOBJECT-TYPE", "Inthedocument:'gr\\u00F6\\u00DFe'",
          "integer32Integer32OBJECT-TYPE"}},
        {many_tables(), {"::={cardNode10300}"}},
        {example("/tests/cards/mib_kinds.json"),
         {"OCTETSTRING(SIZE(0..255))MAX-ACCESSread-write", "Integer32(1..3)MAX-ACCESSread-write",
          "hiddenIndex1OBJECT-TYPESYNTAXInteger32(3..9)MAX-ACCESSnot-accessible",
          "INDEX{hiddenIndex1,hiddenIndex2,hiddenSlot}",
          "fiveColumn3OBJECT-TYPESYNTAXInteger32MAX-ACCESSnot-accessible",
          "oddIndex1OBJECT-TYPESYNTAXInteger32(5)"}},
        {example("/tests/cards/mib_places.json"), {"bTableOBJECT-TYPE", "{joint-iso-ccitt16}"}},
        {example("/tests/cards/mib_inside.json"), {"innerTableOBJECT-TYPE", "Leftout:table'lost'"}},
        {example("/tests/cards/mib_traps.json"),
         {"oneRow4Plus1NOTIFICATION-TYPEOBJECTS{cardSlot", "::={cardTraps7}", "{cardTraps25}",
          "twoRow2x3NOTIFICATION-TYPE", "wideOffset1NOTIFICATION-TYPE", "{cardTraps9}",
          "ithas4000rows", "Leftout:thetrap0", "SYNTAXINTEGER{off(1),on(2)}MAX-ACCESSread-write",
          "SYNTAXINTEGER{absent(1),present(2)}MAX-ACCESSread-only"}}};
    for (const auto& [text, parts] : cases) {
        const made_t made = make(text);
        std::string module = made.text;
        EXPECT_EQ(made.status, 0) << made.log;
        EXPECT_EQ(complaints(std::string(MODULES) + "/CARD-MIB.txt"), "") << module;
        std::erase_if(module, [](char c) { return c == ' ' || c == '\n'; });
        for (const std::string& part : parts) {
            EXPECT_TRUE(has(module, part)) << part << "\n" << made.text;
        }
    }
    const std::string build = fs::path(TPG_BIN).parent_path();
    EXPECT_EQ(complaints(TOP + "/doc/mibs/TPG-3100KX-MIB.txt"), "");
    EXPECT_EQ(complaints(build + "/installed/mibs/TPG-3101KX-MIB.txt"), "");
}

TEST_F(World, NoModuleIsMadeOfWhatTheAgentRefuses)
{
    const struct {
        std::string document, option;
        int status;
        std::string said;
    } cases[] = {{"{", "--module=A", 1, "json_tokener_parse_ex failed"},
                 {document_of(table("t", "1", "")), "--module=A", 1, "param arraylen is zero"},
                 {document_of(table("t", "1") + "," + table("u", "1")), "--module=A", 1,
                  "netsnmp_register_table_iterator failed"},
                 {"{}", "--module=A", 1, "no OID at which a module could stand"},
                 {document_of(table("t", "1")), "--module=a-", 2, "a module's name has"}};
    for (const auto& [text, option, status, said] : cases) {
        const made_t made = make(text, option);
        EXPECT_EQ(made.status, status) << text;
        EXPECT_EQ(made.text, "");
        EXPECT_TRUE(has(made.log, said)) << made.log;
    }
}

TEST_F(World, ManagersGoByTheNamesOfAModule)
{
    const std::string text = example("/doc/examples/line2.json");
    const words_t options = {"-v2c", "-c", "rw", "-t", "15", SNMPD};
    EXPECT_EQ(make(text).status, 0);
    agents_start(&w);
    write_file("/tmp/conf/snmptrapd.conf", "disableAuthorization yes\n");
    w.snmptrapd = proc_start("snmptrapd", knowing("CARD-MIB") +
                                              words_t{"snmptrapd", "-f", "-Lf", "/tmp/run/named",
                                                      "-C", "-c", "/tmp/conf/snmptrapd.conf", "-F",
                                                      "%v\n", "udp:127.0.0.1:1162"});
    EXPECT_TRUE(wait_for_text("/tmp/run/named", "NET-SNMP version"));
    card_files("line2", text);
    chassis_start(&w, played_card(5, "line2", "LINE", R"(, "values": {"101": 25, "200:1": 1})"));
    EXPECT_TRUE(wait_for([] { return get("1.3.6.1.4.1.32473.2.10.1.1.2.2.5") == "INTEGER: 25"; }));
    const auto asked = [&](const std::string& tool, const words_t& words) {
        return run(knowing("CARD-MIB") + words_t{tool} + options + words);
    };
    EXPECT_EQ(asked("snmpset", {"linePortLabel.2.5", "=", "roof"}),
              "CARD-MIB::linePortLabel.2.5 = STRING: \"roof\"\n");
    EXPECT_EQ(asked("snmpset", {"linePortSpeed.2.5", "=", "401"}),
              "linePortSpeed.2.5: Value out of range (401 :: {(0..400)})\n");
    const std::string table = asked("snmptable", {"-Ci", "linePortTable"});
    EXPECT_TRUE(has(table, "linePortSpeed")) << table;
    EXPECT_TRUE(has(table, "roof")) << table;
    EXPECT_EQ(asked("snmpget", {"lineAlarmPresent.2.5"}),
              "CARD-MIB::lineAlarmPresent.2.5 = INTEGER: present(2)\n");
    EXPECT_EQ(asked("snmpset", {"lineAlarmSendTrap.1.5", "=", "off"}),
              "CARD-MIB::lineAlarmSendTrap.1.5 = INTEGER: off(1)\n");
    chassis(&w, "fault 5 200 1 0 1 hot");
    EXPECT_TRUE(wait_for_text("/tmp/run/named", "OID: CARD-MIB::lineAlarmRow2\t"
                                                "CARD-MIB::cardSlot.5 = INTEGER: 5\t"
                                                "CARD-MIB::cardText1.2.5 = STRING: \"hot\""))
        << read_file("/tmp/run/named");
}
