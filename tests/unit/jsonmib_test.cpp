/* A card's document: what is accepted, what is repaired, and what a failure leaves behind. */

#include "tpg_jsonmib_parse.h"
#include "unit.h"

#include <sys/stat.h>

/* A table object below 1.3.6.1.4.1.32473.2; members follow "oid" and the columns. */
static std::string table(const std::string& arcs, const std::string& members = "",
                         const std::string& columns = "{'var_id':5,'type':3}")
{
    return "{'name':'t" + arcs + "','oid':[1,3,6,1,4,1,32473,2," + arcs + "],'param_array':[" +
           columns + "]" + members + "}";
}

static std::string tables(const std::string& list, const std::string& kind = "gen")
{
    return "{'" + kind + "_table_array':[" + list + "]}";
}

static std::vector<oid> place_of(const std::vector<oid>& arcs)
{
    std::vector<oid> name = {1, 3, 6, 1, 4, 1, 32473, 2};
    name.insert(name.end(), arcs.begin(), arcs.end());
    return name;
}

/* Nothing of the table is left but the handler that the library put in front. */
static bool is_tombstone(const netsnmp_handler_registration* registration)
{
    const netsnmp_mib_handler* second = registration->handler->next;
    return second != nullptr && second->next == nullptr &&
           second->handler_name == std::string("tombstone");
}

/* The names of the tables that serve these arcs, a tombstone's with "+", or "-". */
static std::string served(const std::vector<std::vector<oid>>& places)
{
    std::string text;
    for (const std::vector<oid>& arcs : places) {
        const std::vector<oid> name = place_of(arcs);
        const auto* tree = netsnmp_subtree_find(name.data(), name.size(), nullptr, nullptr);
        const bool none = tree == nullptr || tree->reginfo == nullptr;
        const std::string owner = none ? "" : tree->reginfo->handlerName;
        text += (text.empty() ? "" : " ") + (owner.empty() ? "-" : owner);
        text += !owner.empty() && is_tombstone(tree->reginfo) ? "+" : "";
    }
    return text;
}

/* How the library has cut up all OIDs: where each piece begins, and how much the search skips. */
static std::string pieces()
{
    std::string text;
    for (const auto* tree = netsnmp_subtree_find_first(""); tree != nullptr; tree = tree->next) {
        for (const oid arc : std::span(tree->start_a, tree->start_len)) {
            text += "." + std::to_string(arc);
        }
        text += "-" + std::to_string(tree->oid_off) + (tree->children == nullptr ? " " : "+ ");
    }
    return text;
}

/* The registration that answers for the arcs. */
static netsnmp_handler_registration* found(const std::vector<oid>& arcs)
{
    const std::vector<oid> name = place_of(arcs);
    return netsnmp_subtree_find(name.data(), name.size(), nullptr, nullptr)->reginfo;
}

/*
 * A kind and its text | the result and the first line of the log. @n stands for an OID of n
 * elements, I for an index.
 */
constexpr char DOCUMENTS[] = R"(top {} | 0 ok
top [] | -1 Error the document is of json type 5, expected an object
top { | -1 Error json_tokener_parse_ex failed, continue
top {'enterprise_oid':@128,'instslot_oid':@128} | 0 ok
top {'enterprise_oid':@129} | -1 Error arraylen 129 > enterprise oid_max_len 128
top {'trap_var_bindings':[7]} | 0 Warn Unknown json type 3 for trap bindings.
top {'trap_var_bindings':[{'oid':@129}]} | 0 Error arraylen 129 > oid_max_len 128
top {'trap_var_bindings':[{'x':[]}]} | 0 Error unknown key x for trap bindings object.
top {'trap_var_bindings':[{'x':'y'}]} | 0 Warn unknown key x, value y for trap bindings object.
top {'trap_var_bindings':[{'x':7}]} | 0 Warn Unknown json type 3 for trap bindings.
top {'a':'b','c':7,'d':null} | 0 Warn unknown json type 0
top {'x':[]} | 0 Warn unknown array key x
top {'gen_table_array':[5]} | -1 Error gen_table_array[0] is of json type 3, expected 4 (object)
top {'gen_table_array':[{'oid':[1,3]}]} | -1 Error Validation jsonmib_table failed! name[], oid0[1]
gen ,'index_array':[[]] | -1 Error index_array[0] is of json type 5, expected 4 (object)
gen ,'index_array':[{'range0':1}] | -1 Error missing index pair, find 1
gen ,'index_array':[I,I,I,I,I,I] | -1 Error arraylen 6 > index_info_max 5
gen ,'index_array':[I,I,I,I,I],'oid':@120 | 0 ok
gen ,'index_array':[I,I,I,I,I],'oid':@121 | -1 Error table t1: an oid of 121 elements leaves no room
gen ,'oid':[0,3] | -1 Error Validation jsonmib_table failed! name[t1], oid0[0], param_info[
gen ,'name':'nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnN!','oid':[0,3] | -1 Error Validation jsonmib_table failed! name[nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnN], oid0[0]
gen ,'oid':@129 | -1 Error arraylen 129 > oid_max_len 128
gen ,'oid':[3,1] | -1 Error table t1: an oid cannot begin with 3
gen ,'x':[],'y':7 | 0 Warn unknown json type 3
gen ,'x':'y' | 0 Warn unknown key x, value y
gen ,'index_array':[{'x':1,'range0':1,'range1':2}] | 0 Warn unknown key x
gen ,'param_array':[null] | -1 Error param_array[0] is of json type 0, expected 4 (object)
columns  | -1 Error param arraylen is zero
columns {'type':1,'var_id':5} | 0 Warn Fixing wrong range[0:0] for varid[5] in table t1.
columns {'type':2,'range0':5,'range1':1} | 0 Warn Fixing wrong range[5:1] for varid[0] in table t1.
columns {'type':1,'range0':-2,'range1':-1} | 0 ok
columns {'type':1,'range0':5,'range1':1,'read_only':true} | 0 ok
fault ,'trap_info':{'fault_present_var_id':5}},{'name':'t1','oid':[1,3,9],'param_array':[{'type':3}],'trap_info':{'fault_present_var_id':6} | 0 Warn 2 fault tables are named "t1": they share their stored switches
fault ,'x':{} | -1 Warn unknown key x
fault ,'trap_info':{'fault_present_var_id':'12'} | -1 Warn Unknown trap_info_type 6
fault ,'trap_info':{'x':1} | -1 Warn Unknown trap_info_key x
fault  | -1 Error Validation jsonmib_table failed! name[t1], oid0[1], param_info[
)";

TEST(jsonmib, what_a_document_may_hold)
{
    std::istringstream lines(DOCUMENTS);
    for (std::string line; std::getline(lines, line);) {
        std::smatch part;
        SCOPED_TRACE(line);
        ASSERT_TRUE(std::regex_match(line, part, std::regex(R"((\w+) (.*) \| (.*))")));
        const std::string kind = part[1];
        std::string text =
            std::regex_replace(part[2].str(), std::regex("\\bI\\b"), "{'range0':1,'range1':2}");
        for (std::smatch at; std::regex_search(text, at, std::regex("@(\\d+)"));) {
            std::string numbers = "[1,3";
            for (int i = std::stoi(at[1]); i > 2; i--) {
                numbers += ",9";
            }
            text = at.prefix().str().append(numbers).append("]").append(at.suffix().str());
        }
        card_t card;
        const std::string outcome =
            card.loaded(kind == "top"       ? text + "\n"
                        : kind == "columns" ? tables(table("1", "", text))
                                            : tables(table("1", text), kind));
        EXPECT_TRUE((outcome == "0 " ? "0 ok" : outcome).starts_with(part[3].str())) << outcome;
    }
}

TEST(jsonmib, tables_inside_tables)
{
    card_t first; /* brings the roots */
    first.loaded(tables(table("9")));
    first.unload();
    const std::string before = pieces();
    for (const int order : {0, 1, 2, 3}) { /* who comes and who goes first */
        card_t outer;
        card_t inner;
        const std::vector<std::vector<oid>> all = {
            {1}, {1, 1, 1}, {1, 1, 2, 9}, {1, 1, 3}, {1, 1, 4}};
        for (const bool is_outer : {order % 2 == 0, order % 2 != 0}) {
            EXPECT_EQ(is_outer ? outer.loaded(tables(table("1")))
                               : inner.loaded(tables(table("1,1,2") + "," + table("1,1,4"))),
                      "0 ");
        }
        EXPECT_EQ(served(all), "t1 t1 t1,1,2 t1 t1,1,4");
        (order < 2 ? outer : inner).unload();
        EXPECT_EQ(served(all), order < 2 ? "- - t1,1,2 - t1,1,4" : "t1 t1 t1 t1 t1");
        (order < 2 ? inner : outer).unload();
        EXPECT_EQ(served(all), "- - - - -");
        EXPECT_EQ(pieces(), before);
    }
}

/* The error status of a request on a cell of table 21, and what became of its variable's type. */
static std::pair<int, int> answer(int mode)
{
    const std::vector<oid> name = place_of({21, 1, 1, 3});
    netsnmp_agent_request_info reqinfo = {};
    netsnmp_variable_list var = {};
    netsnmp_request_info request = {};
    reqinfo.mode = mode;
    request.requestvb = &var;
    request.agent_req_info = &reqinfo;
    var.type = ASN_NULL;
    snmp_set_var_objid(&var, name.data(), name.size());
    netsnmp_call_handlers(found({21}), &reqinfo, &request);
    snmp_reset_var_buffers(&var);
    return {request.status, var.type};
}

TEST(jsonmib, a_withdrawn_table_leaves_a_tombstone)
{
    /* Whoever adds a version has seen these tests pass with the sanitizers and on the board. */
    EXPECT_TRUE(has("," TPG_NETSNMP_SHOWN ",", "," + std::string(netsnmp_get_version()) + ","));
    card_t card;
    card.loaded(tables(table("21") + "," + table("22")));
    netsnmp_handler_registration* registration = found({21});
    card.withdraw();
    EXPECT_EQ(served({{21}, {22}}), "t21+ t22+");
    EXPECT_EQ(answer(MODE_GET), (std::pair<int, int>(0, SNMP_NOSUCHOBJECT)));
    EXPECT_EQ(answer(MODE_GETNEXT), (std::pair<int, int>(0, ASN_NULL)));
    EXPECT_EQ(answer(MODE_SET_RESERVE1).first, SNMP_ERR_NOTWRITABLE);
    EXPECT_EQ(answer(MODE_SET_COMMIT).first, 0);

    card.record = &card.ctx->jsonmib_reg_info[3]; /* another card, whose table has another name */
    EXPECT_EQ(
        card.loaded(tables("{'name':'\\u0001'," + table("21").substr(table("21").find("'o")))),
        "0 ");
    EXPECT_EQ(served({{21}, {22}}), "? t22+");
    EXPECT_EQ(found({21}), registration);
    EXPECT_EQ(card.record->gen_table_reginfo[0], registration);
    card.record = &card.ctx->jsonmib_reg_info[2];
    EXPECT_TRUE(has(card.loaded(tables(table("22") + "," + table("21"))),
                    "netsnmp_register_table_iterator failed"));
    EXPECT_EQ(served({{21}, {22}}), "? t22");
    card.unload();
    EXPECT_EQ(served({{21}, {22}}), "? -");
    card.record = &card.ctx->jsonmib_reg_info[3];
}

TEST(jsonmib, a_tombstone_hides_no_other_table)
{
    card_t card;
    const auto step = [&card](int slot, const std::string& list) {
        card.record = &card.ctx->jsonmib_reg_info[slot];
        card.withdraw();
        EXPECT_TRUE(list.empty() || card.loaded(tables(list)) == "0 ");
        return served({{1}, {1, 1, 2}, {1, 2}});
    };
    EXPECT_EQ(step(2, table("1")), "t1 t1 t1");
    EXPECT_EQ(step(3, table("1,1,2")), "t1 t1,1,2 t1");
    EXPECT_EQ(step(3, ""), "t1 t1 t1"); /* not kept: inside another */
    EXPECT_EQ(step(3, table("1,1,2")), "t1 t1,1,2 t1");
    EXPECT_EQ(step(2, ""), "- t1,1,2 -"); /* not kept: around another */
    EXPECT_EQ(step(3, ""), "- t1,1,2+ -");
    EXPECT_EQ(step(2, table("1")), "t1 t1 t1"); /* around a tombstone */
    card.unload();
    EXPECT_EQ(step(2, table("1,2")), "- - t1,2");
}

TEST(jsonmib, tombstones_go_when_nobody_asks)
{
    card_t card;
    std::string list = table("1");
    for (uint32_t i = 2; i <= JSONMIB_TOMB_MAX + 1; i++) {
        list += "," + table(std::to_string(i));
    }
    EXPECT_EQ(card.loaded(tables(list)), "0 ");
    card.withdraw();
    EXPECT_EQ(served({{1}, {2}, {JSONMIB_TOMB_MAX + 1}}), "- t2+ t513+"); /* the oldest made room */
    snmp_increment_statistic(STAT_SNMPINPKTS);
    jsonmib_tomb_sweep(card.ctx.get());
    EXPECT_EQ(served({{1}, {2}, {JSONMIB_TOMB_MAX + 1}}), "- t2+ t513+");
    jsonmib_tomb_sweep(card.ctx.get());
    EXPECT_EQ(served({{1}, {2}, {JSONMIB_TOMB_MAX + 1}}), "- - -");
    EXPECT_EQ(card.ctx->jsonmib_tombs.alarm, 0U);
}

TEST(jsonmib, files)
{
    const auto ctx = new_context();
    const std::string largest = "[" + std::string(TPG_FILE_MAX - 2, ' ') + "]";
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    write_file("/tmp/empty", "");
    write_file("/tmp/deep", std::string(40, '['));
    write_file("/tmp/late", "{}");
    ASSERT_EQ(system("touch -d 2040-01-01 /tmp/late"), 0); /* 32 bits do not hold such a time */
    write_file("/tmp/large", largest + " ");
    write_file("/tmp/largest", largest);
    for (const auto& [path, expected] :
         {std::pair{"/tmp/no", "-1 Error Cannot find jsonmib file, /tmp/no\n"},
          {"/tmp", "-1 Error open /tmp failed, Invalid argument\n"},
          {"/tmp/fifo", "-1 Error open /tmp/fifo failed, Invalid argument\n"},
          {"/tmp/empty", "-1 Error invalid file size for /tmp/empty\n"},
          {"/tmp/large", "-1 Error invalid file size for /tmp/large: 4194305 bytes, the limit is "
                         "4194304\n"},
          {"/tmp/deep", "-1 Error jsonmib_check_jsonfile(): nesting too deep, the limit is 32\n"},
          {"/tmp/late", "0 "},
          {"/tmp/largest", "0 "}}) {
        const std::string outcome =
            outcome_of([&, name = path] { return jsonmib_check_jsonfile(ctx.get(), name); });
        EXPECT_TRUE(outcome.starts_with(expected)) << outcome;
    }
}
