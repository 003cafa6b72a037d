/* MIB modules made from documents: what a checker says of them, and managers that go by them. */

#include "world.h"

#include <algorithm>

namespace fs = std::filesystem;

static const std::string FAM = "1.3.6.1.4.1.32473.7", TOP = TPG_SOURCE_DIR;
static const std::string TRAPS =
    R"("enterprise_oid": [1,3,6,1,4,1,32473,7], "instslot_oid": [1,3,6,1,4,1,32473,7,1],)";
static const std::string INDEX = R"("read_only": true, "table_index": true)";

struct column_t {
    int var, type, lo, hi;
    std::string more = {}; /* further members */
};
struct table_t {
    std::string name, oid; /* with dots */
    std::vector<std::pair<int, int>> indexes;
    std::vector<column_t> columns;
    std::string more = {};
};

static std::string list(const words_t& elements)
{
    std::string text;
    for (const std::string& element : elements) {
        text += (text.empty() ? "" : ",") + element;
    }
    return "[" + text + "]";
}

static std::string with(const std::string& more)
{
    return (more.empty() ? "" : ",") + more + "}";
}

static std::string range(int low, int high)
{
    return R"("range0":)" + std::to_string(low) + R"(,"range1":)" + std::to_string(high);
}

static std::string tables_text(const std::vector<table_t>& tables)
{
    words_t texts;
    for (const table_t& table : tables) {
        words_t indexes, columns;
        std::string arcs = table.oid;
        std::ranges::replace(arcs, '.', ',');
        for (const auto& [low, high] : table.indexes) {
            indexes.push_back("{" + range(low, high) + "}");
        }
        for (const column_t& column : table.columns) {
            columns.push_back(R"({"var_id":)" + std::to_string(column.var) + R"(,"type":)" +
                              std::to_string(column.type) + "," + range(column.lo, column.hi) +
                              with(column.more));
        }
        texts.push_back(R"({"name":")" + table.name + R"(","oid":[)" + arcs +
                        R"(],"index_array":)" + list(indexes) + R"(,"param_array":)" +
                        list(columns) + with(table.more));
    }
    return list(texts);
}

/* head: members in front, each with a comma behind it. */
static std::string written(const std::vector<table_t>& gen, const std::vector<table_t>& fault = {},
                           const std::string& head = "")
{
    return "{" + head + R"("gen_table_array":)" + tables_text(gen) + R"(,"fault_table_array":)" +
           tables_text(fault) + "}";
}

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

static std::string fault_table(const std::string& trap_info)
{
    return R"("trap_info": {"fault_present_var_id": 200, )" + trap_info + "}";
}

static std::string named(const std::string& name)
{
    return R"("name": ")" + name + "\"";
}

/* A table for each name, and in each a column of that name; names end at a "|". */
static std::string names_document(const std::string& names)
{
    std::vector<table_t> tables;
    std::istringstream in(names);
    for (std::string name; std::getline(in, name, '|');) {
        tables.push_back({name,
                          FAM + ".10." + std::to_string(tables.size() + 1),
                          {{1, 4}},
                          {{5, 1, 0, 9, named(name)}, {6, 1, 0, 9, named("v")}}});
    }
    return written(tables, {}, TRAPS);
}

static std::string many_tables()
{
    std::string names;
    for (int i = 0; i < 300; i++) {
        names += "port " + std::to_string(i % 290) + "|";
    }
    return names_document(names);
}

static const std::vector<column_t> COLUMNS = {
    {1, 1, 0, 9, INDEX}, {2, 2, 1, 3}, {3, 3, 0, 400}, {4, 7, 0, 9}, {5, 1, 9, 0}};
static const std::vector<column_t> FAULTS = {
    {0, 1, 1, 4, INDEX}, {200, 1, 0, 0}, {0, 1, 1, 2, named("on")}, {201, 3, 0, 31}};

TEST_F(World, ModulesHaveNothingWrongInThem)
{
    const struct {
        std::string document;
        words_t parts; /* of the module, without blanks */
    } cases[] = {
        {read_file(TOP + "/doc/examples/line2.json"), {"INDEX{linePortIndex,linePortSlot}"}},
        {read_file(TOP + "/doc/examples/psu4.json"), {"INDEX{psuModule,psuRail,psuRailSlot}"}},
        {names_document(
             "|  two words |7 up|gr\u00f6\u00dfe|\u65e5|INTEGER|enterprises|mib-2|current|"
             "SEQUENCE|Integer32|a_b|aB|Ab|ab|table|cardSlot|Group|cardMIB|TRUE|size|v|"
             "-a--b-|" +
             std::string(90, 'x') + "|" + std::string(90, 'X')),
         {"twoWordsTableOBJECT-TYPE", "Inthedocument:'gr\\u00F6\\u00DFe'",
          "integer32Integer32OBJECT-TYPE"}},
        {many_tables(), {"::={cardNode10300}"}},
        {written({{"all", FAM + ".1", {{1, 4}}, COLUMNS},
                  {"none", FAM + ".2", {}, {{1, 1, 0, 9, INDEX}, {2, 1, 0, 0}}},
                  {"hidden", FAM + ".3", {{3, 9}, {2, 2}}, {{1, 1, 0, 0}}},
                  {"five", FAM + ".4", {{1, 2}, {1, 2}, {0, 2}, {1, 2}, {1, 2}}, COLUMNS},
                  {"odd", FAM + ".5", {{5, 2}}, {{1, 3, 0, 0}}}}),
         {"OCTETSTRING(SIZE(0..255))MAX-ACCESSread-write", "Integer32(1..3)MAX-ACCESSread-write",
          "hiddenIndex1OBJECT-TYPESYNTAXInteger32(3..9)MAX-ACCESSnot-accessible",
          "INDEX{hiddenIndex1,hiddenIndex2,hiddenSlot}", "oddIndex1OBJECT-TYPESYNTAXInteger32(5)"}},
        {written({{"a", "1.3.111.2.1", {}, COLUMNS},
                  {"b", "2.16.840.1", {}, COLUMNS},
                  {"c", "1.3.6.1.2.1.99.1", {}, COLUMNS},
                  {"d", "1.3.6.1.3.5", {}, COLUMNS}}),
         {"bTableOBJECT-TYPE", "{joint-iso-ccitt16}"}},
        {written({{"inner", FAM + ".9.1.2.7.1", {}, COLUMNS},
                  {"outer", FAM + ".9", {}, COLUMNS},
                  {"lost", FAM + ".9.1.2.7.1.5", {}, COLUMNS}}),
         {"innerTableOBJECT-TYPE", "Leftout:table'lost'"}},
        {written({},
                 {{"one",
                   FAM + ".2",
                   {{1, 4}},
                   FAULTS,
                   fault_table(R"("specific_start": 0, "index_ofs_1": 2)")},
                  {"two",
                   FAM + ".3",
                   {{1, 2}, {1, 3}},
                   FAULTS,
                   fault_table(R"("specific_start": 20, "index_ofs_1": 3, "index_ofs_2": 1)")},
                  {"wide",
                   FAM + ".4",
                   {{1, 4000}},
                   FAULTS,
                   fault_table(R"("specific_start": 100, "index_ofs_1": 2)")}},
                 TRAPS + R"("trap_var_bindings": [{"oid": [1,3,6,1,4,1,32473,7,2,1,4],
                             "specific": "7-9"}],)"),
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
    const std::string good = written({{"t", FAM + ".1", {}, COLUMNS}});
    const struct {
        std::string document, option;
        int status;
        std::string said;
    } cases[] = {{"{", "--module=A", 1, "json_tokener_parse_ex failed"},
                 {written({{"t", FAM + ".1", {}, {}}}), "--module=A", 1, "param arraylen is zero"},
                 {written({{"t", FAM, {}, COLUMNS}, {"u", FAM, {}, COLUMNS}}), "--module=A", 1,
                  "netsnmp_register_table_iterator failed"},
                 {"{}", "--module=A", 1, "no OID at which a module could stand"},
                 {good, "--module=a-", 2, "a module's name has"}};
    for (const auto& [text, option, status, said] : cases) {
        const made_t made = make(text, option);
        EXPECT_EQ(made.status, status) << text;
        EXPECT_EQ(made.text, "");
        EXPECT_TRUE(has(made.log, said)) << made.log;
    }
}

TEST_F(World, ManagersGoByTheNamesOfAModule)
{
    const std::string text = read_file(TOP + "/doc/examples/line2.json");
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
