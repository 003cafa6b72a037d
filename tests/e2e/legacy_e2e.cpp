/* The controller board's own MIB in front of its daemon, and the board's traps. */

#include "world.h"

#include <regex>

/*
 * Groups: arcs, row, the daemon's indexes for reads and for writes, then number, kind and variable
 * of every column. Kinds: integer, numbered from 1, string, Lamp (as numbered, writes change
 * nothing), row (its value without a daemon). A capital is writable.
 */
static constexpr const char* GROUPS[] = {
    "2. 0 0 0 1S56 2S57 3s58 4s59 5s60 6s61 7s62 8s63 9s64 10s65 11s66 12s67 13i68 14S69 15I70",
    "3.1.1. 15 14 14 1r1 2i34 3i35 4s36 5r2 6r2",
    "4. 0 0 0 1I39 2n40 3n41 4n42 5S43 6I0 8I54 9I55 10I75",
    "4.7.1. 8 7 7 1r1 2L44",
    "5. 0 0 0 1s46 2s47 3s48 4s49 5s50 6N83",
    "5.7.1. 1 0 0 1S81 2S82 3S84 4N85",
    "5.7.1. 15 0 14 1S81 2S82 3S84 4N85",
    "6.1.1. 21 20 20 1r1 2N52 3n51",
    "8. 0 0 0 1S76 2N71 3I72 4N73 5S74"};
static const std::string TREE = "1.3.6.1.4.1.32473.10.";
static constexpr char NONE[] = "No Such Instance currently exists at this OID";
static constexpr int WRITTEN = 1000; /* in values that the test wrote */

struct cell_t {
    std::string oid;
    char kind;
    int var, read_index, write_index;
};

static bool is_kind(const cell_t& cell, std::string_view kinds)
{
    return kinds.find(cell.kind) != std::string_view::npos;
}

static std::vector<cell_t> board_cells(const std::string& base)
{
    std::vector<cell_t> cells;
    for (const char* group : GROUPS) {
        std::istringstream words(group);
        std::string arcs, row;
        cell_t cell = {};
        words >> arcs >> row >> cell.read_index >> cell.write_index;
        for (int number = 0; words >> number >> cell.kind >> cell.var;) {
            cell.oid = base + arcs + std::to_string(number) + "." + row;
            cells.push_back(cell);
        }
    }
    return cells;
}

/* The cell's value with a number, as the daemon (first = 0) or SNMP (1) counts. */
static std::string value(const cell_t& cell, int number, int first, const std::string& quote = "\"")
{
    return is_kind(cell, "sS") ? quote + "text" + std::to_string(number) + quote
                               : std::to_string(number + (is_kind(cell, "nNL") ? first : 0));
}

/* Reads all cells at once, before or after writes, with or without a daemon. */
static void expect_all(const std::vector<cell_t>& cells, int written, bool daemon = true)
{
    words_t request = {SNMPD};
    std::string seen, expected;
    for (const cell_t& cell : cells) {
        const int number = cell.var + cell.read_index + (is_kind(cell, "INS") ? written : 0);
        const bool there = daemon || cell.kind == 'r';
        request.push_back(cell.oid);
        expected += "." + cell.oid + "=" + (there ? value(cell, number, 1) : NONE) + "\n";
    }
    for (const var_t& var : snmp("snmpget", request).vars) {
        seen += var.oid + "=" + var.value + "\n";
    }
    EXPECT_EQ(seen, expected);
}

/* error: of writes that the daemon has to take. */
static void expect_writes(const std::vector<cell_t>& cells, const std::string& error)
{
    for (const cell_t& cell : cells) {
        const std::string text = value(cell, cell.var + cell.write_index + WRITTEN, 1, "");
        const std::string ours = cell.kind == 'L' ? "" : "notWritable";
        const std::string got = set(cell.oid, is_kind(cell, "sS") ? "s" : "i", text);
        EXPECT_EQ(got, is_kind(cell, "INS") ? error : ours) << cell.oid;
    }
}

/* The board's module has each column, as it is served. */
static void expect_names(const std::vector<cell_t>& cells, const std::string& base,
                         const std::string& module)
{
    static const std::regex LINE(R"(TPG-310.KX-MIB::kx310.\w+\.\d+ = ((INTEGER|STRING): .*|""))");
    static const std::regex COLUMN(R"(SYNTAX\s+(\w)[^]*?MAX-ACCESS\s+read-(\w))");
    words_t translate = knowing(module) + words_t{"snmptranslate", "-Td"};
    std::string expected, found;
    for (const cell_t& cell : cells) {
        translate.push_back(cell.oid);
        expected += is_kind(cell, "sS") ? 'O' : 'I';
        expected += is_kind(cell, "INSL") ? 'w' : 'o';
    }
    const std::string text = run(translate);
    for (std::sregex_iterator it(text.begin(), text.end(), COLUMN), end; it != end; ++it) {
        found += it->str(1) + it->str(2);
    }
    EXPECT_EQ(found, expected);
    const words_t walk = {"snmpbulkwalk", "-v2c", "-c", "rw", "-t", "15", SNMPD, base};
    std::istringstream lines(run(knowing(module) + walk));
    int total = 0;
    for (std::string line; std::getline(lines, line); total++) {
        EXPECT_TRUE(std::regex_match(line, LINE)) << line; /* not so: a wrong type, a number */
    }
    EXPECT_EQ(total, 264);
}

static void expect_columns(world_t* w, const std::string& base, const std::string& board)
{
    const std::vector<cell_t> cells = board_cells(base);
    for (const cell_t& cell : cells) {
        const std::string place = std::to_string(cell.var) + " " + std::to_string(cell.read_index);
        chassis(w, "set 1 " + place + " " + value(cell, cell.var + cell.read_index, 0));
    }
    expect_all(cells, 0);
    expect_names(cells, base.substr(0, base.size() - 1), "TPG-" + board + "-MIB");
    for (const char* tool : {"snmpwalk", "snmpbulkwalk"}) {
        EXPECT_EQ(snmp(tool, {SNMPD, base.substr(0, base.size() - 1)}).vars.size(), 264U) << tool;
    }
    chassis(w, "requests 1 clear");
    gets(base, "2.1.0 2.13.0");
    EXPECT_TRUE(chassis(w, "requests 1")
                    .starts_with("get var=56 index=0 length=128\n"
                                 "get var=68 index=0 length=4\n"));
    for (const char* none : {"2.16.0", "2.1.1", "4.7.0", "4.7.1.1.9", "5.7.1.1.16", "6.1.1.2.22"}) {
        EXPECT_TRUE(get(base + none).starts_with("No Such")) << none;
        EXPECT_NE(set(base + none, "i", "1"), "") << none;
    }
    expect_writes(cells, "");
    EXPECT_EQ(set(base + "2.1.0", "a", "1.2.3.4"), ""); /* taken, not written */
    EXPECT_EQ(set(base + "6.1.1.2.21", "s", "1"), "genError");
    EXPECT_EQ(chassis(w, "get 1 81 14"), "ok \"text1095\""); /* which no row shows */
    EXPECT_EQ(chassis(w, "get 1 85 14"), "ok 1099");
    for (const char* failure : {"refuse 1 3", "down 1"}) {
        SCOPED_TRACE(chassis(w, failure));
        expect_all(cells, 0, false);
        expect_writes(cells, "genError");
    }
    chassis(w, "resume 1");
    expect_all(cells, WRITTEN);
}

TEST_F(World, BoardsServeTheirColumnsAndSendTraps)
{
    snmpd_start(&w);
    snmptrapd_start(&w);
    words_t expected;
    for (const std::string board : {"3100KX", "3101KX"}) {
        const std::string base = TREE + (board == "3100KX" ? "232." : "216.");
        SCOPED_TRACE(board);
        tpg_start(&w, {}, board);
        chassis_start(&w, "", R"("board": {},)");
        const std::string slot = base + "3.1.1.1.1";
        EXPECT_TRUE(wait_for([&] { return get(slot) == "INTEGER: 1"; }));
        expect_columns(&w, base, board);
        const std::string others = notify(1, 77, 4) + notify(1, 77, 4, "abc") +
                                   notify(1, 77, 4, "abcde") +
                                   notify(1, 77, 4, std::string(13, 'x'));
        client_send(client_connect(), notify(1, 77, 3, big_endian(2)) + others +
                                          notify(1, 77, 70000, big_endian(0xffffffff)));
        for (const char* specific : {"1005", "70999"}) {
            expected.push_back("." + base + "7.1.0." + specific + " ." + slot + "=INTEGER: 1");
        }
        expect_traps(expected);
        EXPECT_EQ(log_count(w, "Only support integer trap value for KX!"), 4);
        proc_end(&w.chassis);
        EXPECT_EQ(proc_end(&w.tpg), 0);
    }
}
