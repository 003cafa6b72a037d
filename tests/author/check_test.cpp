/* What is found in documents, and that it is what the agent refuses. */

#include "../support/support.h"
#include "author_check.h"
#include "author_keys.h"
#include "tpg_jsonmib.h"
#include "tpg_jsonmib_tomb.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <json/json.h>
#include <random>
#include <regex>
#include <sstream>
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validator.hpp>

using docs_t = std::vector<author_doc_t>;

static void add_doc(docs_t* docs, const std::string& text)
{
    author_doc_t& doc = docs->emplace_back();
    doc.file = "doc" + std::to_string(docs->size());
    doc.text = text;
}

static bool has_error(const author_doc_t& doc)
{
    return std::ranges::count(doc.findings, author_severity::error, &author_finding_t::severity) >
           0;
}

/* ---- the schema, as a validator reads it ---- */

static Json::Value json_of(const std::string& text)
{
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

/* True for what is no JSON, too: that is not the schema's business. */
static bool schema_accepts(const std::string& text)
{
    static const Json::Value source = json_of(author_schema());
    static valijson::Schema schema;
    static const bool once = [] {
        valijson::SchemaParser(valijson::SchemaParser::kDraft7)
            .populateSchema(valijson::adapters::JsonCppAdapter(source), schema);
        return true;
    }();
    Json::Value document;
    Json::CharReaderBuilder reader;
    std::istringstream in(text);
    const bool is_json = once && Json::parseFromStream(reader, in, &document, nullptr);
    const valijson::adapters::JsonCppAdapter target(document);
    return !is_json || valijson::Validator().validate(schema, target, nullptr);
}

/* ---- small documents ---- */

static std::string written_out(std::string text)
{
    static const std::pair<const char*, const char*> WORDS[] = {
        {"\\$T", "$N,$O,$P"},
        {"\\$F", "$N,$O,$I,'param_array':[{$S}],$R"},
        {"\\$N", "'name':'t'"},
        {"\\$O", "'oid':[$A,1]"},
        {"\\$P", "'param_array':[{$C}]"},
        {"\\$I", "'index_array':[{$X}]"},
        {"\\$X", "'range0':1,'range1':4"},
        {"\\$S", "'type':1,'var_id':7,'read_only':true"},
        {"\\$R", "'trap_info':{'fault_present_var_id':7,'specific_start':1,'index_ofs_1':2}"},
        {"\\$E", "'enterprise_oid':[$A],'instslot_oid':[$A,1]"},
        {"\\$C", "'type':1,'var_id':5,'range1':9"},
        {"\\$A", "1,3,6,1,4,1,32473,2"},
        {"\\$L", "12345678123456781234567812345678123456781234567812345678"},
        {"#", "\n"},
        {"'", "\""},
        {"`", "'"},
    };
    for (const auto& [word, meaning] : WORDS) {
        text = std::regex_replace(text, std::regex(word), meaning);
    }
    for (std::smatch at; std::regex_search(text, at, std::regex("@(\\d+)"));) {
        std::string arcs;
        for (int i = std::stoi(at[1]); i > 0; i--) {
            arcs += ",9";
        }
        text = at.prefix().str() + arcs + at.suffix().str();
    }
    return text;
}

static std::string in_its_place(const std::string& kind, const std::string& text)
{
    return kind == "gen"     ? "{'gen_table_array':[#" + text + "]}"
           : kind == "fault" ? "{$E,'fault_table_array':[#" + text + "]}"
           : kind == "bind"  ? "{$E,'fault_table_array':[{$F}],'trap_var_bindings':[#" + text + "]}"
                             : text;
}

/* Takes the marks out of the text; their places as "LINE:COLUMN". */
static void add_marks(std::string* text, std::vector<std::string>* marks)
{
    for (size_t at = 0; (at = text->find('^')) != std::string::npos;) {
        text->erase(at, 1);
        const std::string before = text->substr(0, at);
        const auto line = std::count(before.begin(), before.end(), '\n') + 1;
        const size_t column = at - (before.rfind('\n') + 1) + 1; /* npos + 1 is 0 */
        marks->push_back(std::to_string(line) + ":" + std::to_string(column));
    }
}

static std::string findings_of(docs_t* docs)
{
    std::string all;
    for (author_doc_t& doc : *docs) {
        std::ranges::stable_sort(doc.findings, {}, &author_finding_t::at);
        for (const author_finding_t& finding : doc.findings) {
            all += author_place_text(doc, finding.at) +
                   (finding.severity == author_severity::error ? " E " : " W ") + finding.text +
                   "\n";
        }
    }
    return all;
}

TEST(author, mistakes_are_found_where_they_are)
{
    const std::string file = read_file(TPG_SOURCE_DIR "/tests/author/mistakes.txt");
    std::istringstream lines(file.substr(file.find("\n\n") + 2));
    for (std::string whole; std::getline(lines, whole);) {
        SCOPED_TRACE(whole);
        const std::string line = whole.substr(0, whole.find(" => "));
        const std::string text = whole.substr(line.size() + 4);
        const std::string kind = line.substr(0, line.find(' '));
        std::vector<std::string> marks;
        docs_t docs;
        std::istringstream parts(std::regex_replace(text, std::regex(" && "), "\n"));
        for (std::string part; std::getline(parts, part);) {
            std::string document = written_out(in_its_place(kind, part));
            add_marks(&document, &marks);
            add_doc(&docs, document);
        }
        author_apply_rules(docs);
        const std::string by_rules = findings_of(&docs);
        ASSERT_EQ(author_ask_agent(docs), 0);
        author_forget_cards();
        const std::string findings = findings_of(&docs);
        EXPECT_TRUE(findings.starts_with(by_rules)) << by_rules << findings;
        EXPECT_EQ(docs.back().refused, std::regex_search(line, std::regex("[ |]E ")));
        std::istringstream found(findings), expected(line.substr(kind.size() + 1));
        size_t i = 0;
        for (std::string one, part; std::getline(expected, part, '|'); i++) {
            EXPECT_TRUE(std::getline(found, one) && i < marks.size() &&
                        one.starts_with(marks[i] + " " + part.substr(0, 2)) &&
                        has(one, part.substr(2)))
                << one << "\n"
                << part << "\n"
                << findings;
        }
        EXPECT_TRUE(found.peek() == EOF && i == marks.size()) << findings;
        EXPECT_TRUE(!findings.empty() || schema_accepts(docs.front().text));
    }
}

/* ---- documents bent at random ---- */

struct bender_t {
    std::mt19937 random;
    std::vector<Json::Value*> values;
    size_t below(size_t number)
    {
        return random() % number;
    }
};

static void list_values(bender_t* bender, Json::Value* value)
{
    bender->values.push_back(value);
    for (const std::string& key :
         value->isObject() ? value->getMemberNames() : Json::Value::Members()) {
        list_values(bender, &(*value)[key]);
    }
    for (Json::ArrayIndex i = 0; value->isArray() && i < value->size(); i++) {
        list_values(bender, &(*value)[i]);
    }
}

static void bend_value(bender_t* bender, Json::Value* root)
{
    static const int NUMBERS[] = {0, 1, -1, 2, 3, 5, 40, 128, 255, 257, 65536, INT_MAX, INT_MIN};
    bender->values.clear();
    list_values(bender, root);
    Json::Value& value = *bender->values[bender->below(bender->values.size())];
    const Json::Value other = *bender->values[bender->below(bender->values.size())];
    const size_t way = bender->below(6);
    if (way == 0 && value.isObject() && !value.empty()) {
        value.removeMember(value.getMemberNames()[bender->below(value.size())]);
    } else if (way == 1 && value.isObject() && !value.empty()) {
        value[value.getMemberNames()[bender->below(value.size())] + "x"] = other;
    } else if (way <= 2 && value.isArray()) {
        for (size_t i = bender->below(130); i > 0 && !value.empty() && value.size() < 140; i--) {
            value.append(Json::Value(value[0]));
        }
    } else if (way == 3) {
        value = other;
    } else {
        value = way == 4 ? Json::Value(NUMBERS[bender->below(std::size(NUMBERS))])
                         : Json::Value(std::string("1-3, 7"));
    }
}

static std::string bent(bender_t* bender, const std::string& source)
{
    Json::Value root = json_of(source);
    for (size_t times = bender->below(3); times > 0; times--) {
        bend_value(bender, &root);
    }
    std::string text = root.toStyledString();
    const size_t at = bender->below(text.size());
    static const std::string SIGNS = ",:{}[]\"'/*xN0-\\";
    switch (bender->below(8)) {
    case 0:
        return text.substr(0, at);
    case 1:
        return text.erase(at, 1);
    case 2:
        return text.insert(at, 1, SIGNS[bender->below(SIGNS.size())]);
    default:
        return text;
    }
}

/* The agent's word on a document, without the tool. */
static bool is_refused(const std::string& text)
{
    static auto ctx = std::make_unique<tpg_context_t>(); /* logs nothing */
    auto card = std::make_unique<tpg_jsonmib_register_info_t>();
    const std::string path = testing::TempDir() + "bent." + std::to_string(getpid());
    write_file(path, text);
    const bool refused =
        jsonmib_check_jsonfile(ctx.get(), path.c_str()) != 0 ||
        jsonmib_proc_registration(ctx.get(), text.data(), text.size(), card.get()) != 0;
    jsonmib_release(ctx.get(), card.get());
    jsonmib_tomb_sweep(ctx.get());
    std::filesystem::remove(path);
    return refused;
}

TEST(author, bent_documents_are_refused_by_both_or_by_neither)
{
    bender_t bender = {std::mt19937(1), {}};
    size_t refused = 0;
    for (int i = 0; i < 1000; i++) {
        const char* name = i % 2 == 0 ? "line2" : "psu4";
        const std::string text =
            bent(&bender, read_file(std::string(TPG_SOURCE_DIR "/doc/examples/") + name + ".json"));
        docs_t docs;
        add_doc(&docs, text);
        author_doc_t& doc = docs.front();
        author_apply_rules(docs);
        SCOPED_TRACE(text + "\n" + findings_of(&docs));
        const bool agents = is_refused(text);
        ASSERT_EQ(has_error(doc), agents);
        ASSERT_TRUE(!doc.findings.empty() || schema_accepts(text));
        for (const author_finding_t& finding : doc.findings) {
            ASSERT_TRUE(finding.severity == author_severity::warning || finding.at > 0 ||
                        json_object_get_type(doc.json.get()) != json_type_object);
        }
        ASSERT_EQ(author_ask_agent(docs), 0);
        author_forget_cards();
        ASSERT_EQ(doc.refused, agents);
        refused += agents ? 1 : 0;
    }
    EXPECT_GT(refused, 200U);
    EXPECT_LT(refused, 800U);
}

/* ---- the program ---- */

/* What a command line prints, and its exit status behind it. */
static std::string run(const std::string& arguments, const std::string& input)
{
    const std::string line = "printf '%s' '" + input + "' | " TPG_JSONMIB_BIN " " + arguments;
    std::unique_ptr<FILE, int (*)(FILE*)> program(popen(line.c_str(), "r"), pclose);
    char text[65536] = "";
    const size_t length = fread(text, 1, sizeof(text) - 1, program.get());
    const int status = pclose(program.release());
    return std::string(text, length) + std::to_string(WEXITSTATUS(status));
}

TEST(author, the_program_says_it_with_its_status)
{
    const std::string examples = TPG_SOURCE_DIR "/doc/examples/";
    EXPECT_EQ(run("check --strict " + examples + "line2.json " + examples + "psu4.json", ""), "0");
    EXPECT_EQ(run("check - 2>&1", "{}"),
              "<stdin>:1:1: warning: no tables in the document\n0 errors and 1 warning found.\n0");
    EXPECT_TRUE(run("check --strict -", "{}").ends_with("\n1"));
    EXPECT_TRUE(has(run("check -", "[]"), "(agent: the document is of json type 5, expected"));
    EXPECT_TRUE(
        has(run("check --format=json -", "{\n \"a\":[]}"), "\"line\":2,\n    \"column\":2,"));
    EXPECT_EQ(run("check --format=json " + examples + "psu4.json", ""), "[\n]\n0");
    EXPECT_EQ(run("check /none 2>/dev/null", ""), "2");
    EXPECT_EQ(run("check 2>/dev/null", ""), "2");
    EXPECT_EQ(run("schema", ""), author_schema() + "0");
}
