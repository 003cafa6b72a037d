/* A card's document: what is accepted, what is repaired, and what a failure leaves behind. */

#include "tpg_jsonmib_parse.h"
#include "unit.h"

#include <sys/stat.h>

/* "1,3,6,..." of n elements. */
static std::string numbers(size_t n)
{
    std::string text = "1,3,6,1,4,1,32473,2";
    for (size_t i = 8; i < n; i++) {
        text += ",9";
    }
    return "[" + text + "]";
}

/* A document with one table array; in text, @n stands for an OID of n elements. */
static std::string document(const std::string& kind, std::string text)
{
    for (std::smatch at; std::regex_search(text, at, std::regex("@(\\d+)"));) {
        text = at.prefix().str() + numbers(std::stoul(at[1])) + at.suffix().str();
    }
    return "{'" + kind + "_table_array':[" + text + "]}";
}

/* A table object below 1.3.6.1.4.1.32473.2; members follow "oid" and the columns. */
static std::string table(const std::string& arcs, const std::string& members = "",
                         const std::string& columns = "{'var_id':5,'type':3}")
{
    return "{'name':'t" + arcs + "','oid':[1,3,6,1,4,1,32473,2," + arcs + "],'param_array':[" +
           columns + "]" + members + "}";
}

static std::string gen(const std::string& tables)
{
    return document("gen", tables);
}

/* The name of the table that serves arcs, or "". */
static std::string served(std::vector<oid> arcs)
{
    std::vector<oid> name = {1, 3, 6, 1, 4, 1, 32473, 2};
    name.insert(name.end(), arcs.begin(), arcs.end());
    const netsnmp_subtree* tree = netsnmp_subtree_find(name.data(), name.size(), nullptr, nullptr);
    return tree == nullptr || tree->reginfo == nullptr ? "" : tree->reginfo->handlerName;
}

/* A kind and its text | the result and the first line of the log. */
constexpr char DOCUMENTS[] = R"(top {} | 0
top [] | -1 Error the document is of json type 5, expected an object
top true | -1 Error the document is of json type 1, expected an object
top { | -1 Error json_tokener_parse_ex failed, continue
top {} and more | 0
top {'a':'text','b':7,'gen_table_array':'x'} | 0
top {'gen_table_array':{}} | 0 Warn unknown json type 4
top {'d':null} | 0 Warn unknown json type 0
top {'oid':[]} | 0 Warn unknown array key oid
top {'enterprise_oid':@128,'instslot_oid':@128} | 0
top {'enterprise_oid':@129} | -1 Error arraylen 129 > enterprise oid_max_len 128
top {'instslot_oid':@129} | -1 Error arraylen 129 > instslot oid_max_len 128
top {'trap_var_bindings':[7]} | 0 Warn Unknown json type 3 for trap bindings.
top {'trap_var_bindings':[{'oid':@129}]} | 0 Error arraylen 129 > oid_max_len 128
top {'trap_var_bindings':[{'x':[]}]} | 0 Error unknown key x for trap bindings object.
top {'trap_var_bindings':[{'y':'z'}]} | 0 Warn unknown key y, value z for trap bindings object.
top {'gen_table_array':[5]} | -1 Error gen_table_array[0] is of json type 3, expected 4 (object)
top {'gen_table_array':[{'oid':[1,3]}]} | -1 Error Validation jsonmib_table failed! name[], oid0[1]
gen ,'x':[] | 0
gen ,'other':'x' | 0 Warn unknown key other, value x
gen ,'trap_info':{} | 0 Warn unknown json type 4
gen ,'index_array':[{'range0':1}] | -1 Error missing index pair, find 1
gen ,'index_array':[{}] | -1 Error missing index pair, find 0
gen ,'index_array':[[]] | -1 Error index_array[0] is of json type 5, expected 4 (object)
gen ,'index_array':[I,I,I,I,I] | 0
gen ,'index_array':[I,I,I,I,I,I] | -1 Error arraylen 6 > index_info_max 5
gen ,'index_array':[I,I,I,I,I],'oid':@120 | 0
gen ,'index_array':[I,I,I,I,I],'oid':@121 | -1 Error table t1: an oid of 121 elements leaves no room
gen ,'oid':@125 | 0
gen ,'oid':@128 | -1 Error table t1: an oid of 128 elements leaves no room for cells, at most 125
gen ,'oid':@129 | -1 Error arraylen 129 > oid_max_len 128
gen ,'oid':[0,3] | -1 Error Validation jsonmib_table failed! name[t1], oid0[0], param_info[
gen ,'param_array':[null] | -1 Error param_array[0] is of json type 0, expected 4 (object)
columns  | -1 Error param arraylen is zero
columns {'type':1,'var_id':5} | 0 Warn Fixing wrong range[0:0] for varid[5] in table t1.
columns {'type':2,'range0':5,'range1':1} | 0 Warn Fixing wrong range[5:1] for varid[0] in table t1.
columns {'type':1,'range0':-2,'range1':-1} | 0
columns {'type':1,'range0':5,'range1':5} | 0
columns {'type':1,'range0':5,'range1':1,'read_only':true} | 0
columns {'x':1} | 0 Warn unknown key x
fault  | -1 Error Validation jsonmib_table failed! name[t1], oid0[1], param_info[
fault ,'trap_info':{'fault_present_var_id':'12'} | -1 Warn Unknown trap_info_type 6
fault ,'trap_info':{'fault_present_var_id':1,'x':2} | 0 Warn Unknown trap_info_key x
)";

TEST(jsonmib, what_a_document_may_hold)
{
    std::istringstream lines(DOCUMENTS);
    for (std::string line; std::getline(lines, line);) {
        std::smatch part;
        SCOPED_TRACE(line);
        ASSERT_TRUE(std::regex_match(line, part, std::regex(R"((\w+) (.*) \| (-?\d+) ?(.*))")));
        const std::string kind = part[1];
        std::string text =
            std::regex_replace(part[2].str(), std::regex("\\bI\\b"), "{'range0':1,'range1':2}");
        text = document(kind == "fault" ? kind : "gen", kind == "columns" ? table("1", "", text)
                                                        : kind == "top"   ? text
                                                                          : table("1", text));
        constexpr size_t WRAPPING = sizeof("{'gen_table_array':[") - 1;
        card_t card;
        EXPECT_EQ(card.load(kind == "top" ? text.substr(WRAPPING, text.size() - WRAPPING - 2) + "\n"
                                          : text),
                  std::stoi(part[3]));
        EXPECT_TRUE(card.log.starts_with(part[4].str())) << card.log;
        EXPECT_EQ(card.log.empty(), part[4].str().empty()) << card.log;
    }
}

TEST(jsonmib, what_stands_in_the_records)
{
    const std::string columns = "{'var_id':5,'type':1,'range0':5,'range1':1},{'type':258},"
                                "{'type':3,'table_index':true,'read_only':true,'range1':31}";
    const std::string members = ",'index_array':[{'range0':1,'range1':2},{'range1':4,'range0':3}],"
                                "'trap_info':{'fault_present_var_id':1,'specific_start':2,"
                                "'index_ofs_1':3,'index_ofs_2':4}";
    card_t card;
    ASSERT_EQ(
        card.load(
            "{'enterprise_oid':[1,3,6],'instslot_oid':[1,2]," +
            gen(table("1", members + ",'name':'" + std::string(70, 'n') + "'", columns)).substr(1)),
        0);
    EXPECT_EQ(card.record->enterprise_oid_len + card.record->instslot_oid_len, 5U);
    EXPECT_EQ(card.record->instslot_oid[1], 2U);
    EXPECT_EQ(served({1}), std::string(64, 'n'));
    card_t other;
    ASSERT_EQ(other.load(document("fault", table("2", members, columns))), 0);
    const jsonmib_table_info_t* gen_table = table_of(card.record->gen_table_reginfo[0]);
    const jsonmib_table_info_t* fault_table = other.record->fault_json_table[0];
    EXPECT_EQ(fault_table, table_of(other.record->fault_table_reginfo[0]));
    EXPECT_EQ(fault_table->flags, JSONMIB_TABLE_FAULT);
    EXPECT_EQ(fault_table->index_total - gen_table->index_total, 2);
    const jsonmib_index_info_t indexes[] = {
        {{1, 2}, 0}, {{3, 4}, 0}, {{1, 15}, JSONMIB_INDEX_SLOT}};
    const jsonmib_table_trap_info_t trap_info = {1, 2, 3, 4};
    EXPECT_EQ(memcmp(gen_table->index_info, indexes, sizeof(indexes)), 0);
    EXPECT_EQ(memcmp(&fault_table->trap_info, &trap_info, sizeof(trap_info)), 0);
    EXPECT_EQ(gen_table->trap_info.specific_start, 0U);
    const auto text_of = [](const jsonmib_table_param_info_t& c) {
        return testing::PrintToString(
            std::vector<int64_t>{c.type, c.access, c.flags, c.var_id, c.range[0], c.range[1]});
    };
    EXPECT_EQ(text_of(gen_table->param_info[0]), "{ 1, 2, 0, 5, 0, 2147483647 }");
    EXPECT_EQ(text_of(gen_table->param_info[1]), "{ 2, 2, 0, 0, 0, 2147483647 }");
    EXPECT_EQ(text_of(gen_table->param_info[2]), "{ 3, 1, 1, 0, 0, 31 }");
    EXPECT_EQ(text_of(fault_table->param_info[0]), "{ 1, 2, 0, 5, 5, 1 }");
    EXPECT_EQ(text_of(fault_table->param_info[1]), "{ 2, 2, 0, 0, 0, 0 }");
}

TEST(jsonmib, a_failure_leaves_what_came_before_it)
{
    card_t card;
    EXPECT_EQ(card.load(gen(table("1") + ",{}," + table("3"))), -1);
    EXPECT_TRUE(
        has(card.log, "jsonmib_proc_gen_table_array failed! prod_family fam, array index 1"));
    EXPECT_EQ(served({1}) + served({3}), "t1");
    const std::string log =
        log_of([&] { jsonmib_proc_unregistration(card.ctx.get(), card.record); });
    EXPECT_EQ(log, "Warn gen_table_reginfo[1] is NULL\nWarn gen_table_reginfo[2] is NULL\n");
    EXPECT_EQ(served({1}), "");
}

TEST(jsonmib, a_taken_oid_is_refused_and_stays_its_owners)
{
    card_t card;
    card_t intruder;
    ASSERT_EQ(card.load(gen(table("1"))), 0);
    EXPECT_EQ(
        intruder.load(document("fault", table("1", ",'trap_info':{'fault_present_var_id':7}"))),
        -1);
    EXPECT_TRUE(has(intruder.log, "Error jsonmib_register_fault_table failed!\n"));
    intruder.unload();
    EXPECT_EQ(served({1}), "t1");
    card.unload();
    EXPECT_EQ(served({1}), "");
    EXPECT_EQ(intruder.load(gen(table("1"))), 0);
}

TEST(jsonmib, tables_inside_tables)
{
    for (const bool outer_first : {true, false}) {
        for (const bool outer_leaves_first : {true, false}) {
            card_t outer;
            card_t inner;
            const auto load = [&](bool is_outer) {
                return is_outer ? outer.load(gen(table("1")))
                                : inner.load(gen(table("1,1,2") + "," + table("1,1,4")));
            };
            ASSERT_EQ(load(outer_first) + load(!outer_first), 0);
            const std::vector<oid> places[] = {{1}, {1, 1, 1}, {1, 1, 2, 9}, {1, 1, 3}, {1, 1, 4}};
            const auto all = [&] {
                std::string text;
                for (const std::vector<oid>& place : places) {
                    text += served(place) + " ";
                }
                return text;
            };
            EXPECT_EQ(all(), "t1 t1 t1,1,2 t1 t1,1,4 ");
            (outer_leaves_first ? outer : inner).unload();
            EXPECT_EQ(all(), outer_leaves_first ? "  t1,1,2  t1,1,4 " : "t1 t1 t1 t1 t1 ");
            (outer_leaves_first ? inner : outer).unload();
            EXPECT_EQ(all(), "     ");
        }
    }
}

TEST(jsonmib, files)
{
    const auto ctx = new_context();
    const auto check = [&](const char* path) {
        int ret = 0;
        const std::string log = log_of([&] { ret = jsonmib_check_jsonfile(ctx.get(), path); });
        return std::to_string(ret) + " " + log.substr(0, log.find('\n'));
    };
    EXPECT_EQ(check("/tmp/no"), "-1 Error Cannot find jsonmib file, /tmp/no");
    EXPECT_EQ(check("/tmp"), "-1 Error open /tmp failed, Invalid argument");
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    EXPECT_EQ(check("/tmp/fifo"), "-1 Error open /tmp/fifo failed, Invalid argument");
    const std::string largest = "[" + std::string(TPG_FILE_MAX - 2, ' ') + "]";
    write_file("/tmp/a", "");
    EXPECT_EQ(check("/tmp/a"), "-1 Error invalid file size for /tmp/a");
    write_file("/tmp/a", largest + " ");
    EXPECT_EQ(check("/tmp/a"), "-1 Error invalid file size for /tmp/a");
    write_file("/tmp/a", largest);
    EXPECT_EQ(check("/tmp/a"), "0 ");
    write_file("/tmp/a", "{\"a\":");
    EXPECT_EQ(check("/tmp/a"), "-1 Error jsonmib_check_jsonfile(): continue");
    size_t size = 0;
    const std::unique_ptr<char, decltype(&free)> text(jsonmib_read_json(ctx.get(), "/tmp/a", &size),
                                                      free);
    EXPECT_EQ(std::string(text.get(), size), "{\"a\":");
}
