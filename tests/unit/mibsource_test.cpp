/* A card's document out of what objdump prints of its library; the objdump is the test's own. */

#include "tpg_main_mibsource.h"
#include "unit.h"

#include <filesystem>

namespace fs = std::filesystem;

constexpr char LIBRARY[] = "/tmp/card/libmib.so";
constexpr char BUILT_IN[] = "/var/built_in_jsonmib/libmibprod.so.json";

/* A symbol table line as objdump prints it. */
static std::string symbol(const std::string& name, const std::string& offset = "4020",
                          const std::string& size = "0c")
{
    return offset + " l     O .data\t" + size + "              " + name + "\n";
}

static std::string section(const std::string& name, const std::string& size)
{
    return "  9 " + name + "  " + size + "  00004000  00004000  00003000  2**5\n";
}

/* The text as a section dump, four groups a line. */
static std::string dump(const std::string& text)
{
    std::string lines = "\nlibmib.so:     file format elf32\n\nContents of section .data:\n";
    for (size_t at = 0; at < text.size(); at += 16) {
        lines += " 4020";
        for (size_t i = at; i < std::min(at + 16, text.size()); i++) {
            char digits[4];
            snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(text[i]));
            lines += (i % 4 == 0 ? " " : "") + std::string(digits);
        }
        lines += "  " + text.substr(at, 16) + "\n";
    }
    return lines;
}

struct mibsource : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    tpg_libmib_register_info_t card = {};
    std::string path = getenv("PATH");
    uint32_t offset = 0;
    uint32_t length = 0;

    void SetUp() override
    {
        fs::create_directories("/tmp/card");
        fs::create_directories("/tmp/bin");
        write_file("/tmp/bin/objdump", "#!/bin/sh\necho \"$@\" >>/tmp/bin/calls\n"
                                       "cat /tmp/bin/out$1\n");
        write_file("/tmp/bin/libmib_reverse", "#!/bin/sh\necho '[7]' >$1.json\n");
        fs::permissions("/tmp/bin/objdump", fs::perms::owner_all);
        fs::permissions("/tmp/bin/libmib_reverse", fs::perms::owner_all);
        setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
        write_file(LIBRARY, "");
        set_text(card.prod_string, "prod");
        set_text(card.libmib_path, LIBRARY);
        card.slot_no = 3;
    }
    void TearDown() override
    {
        setenv("PATH", path.c_str(), 1);
        for (const char* place : {"/tmp/card", "/tmp/bin", BUILT_IN}) {
            fs::remove_all(place);
        }
    }
    static void objdump(const std::string& symbols, const std::string& heads,
                        const std::string& dump)
    {
        write_file("/tmp/bin/out-t", symbols);
        write_file("/tmp/bin/out-h", heads);
        write_file("/tmp/bin/out-s", dump);
    }
    std::string locate()
    {
        int ret = 0;
        const std::string log = log_of([&] { ret = tpg_locate_jsonmib(ctx.get(), &card); });
        return std::to_string(ret) + " " + log;
    }
};

TEST_F(mibsource, symbols)
{
    const auto look = [&](const std::string& symbols) {
        objdump(symbols, "", "");
        int ret = 0;
        const std::string log =
            log_of([&] { ret = tpg_get_jsonmib_string(ctx.get(), &card, &offset, &length); });
        return std::to_string(ret) + " " + log;
    };
    EXPECT_EQ(look(symbol("jsonmib_prod", "4020") + symbol("jsonmib_prod2", "4444")),
              "0 Info jsonmib_prod offset 16416, length 12\n");
    EXPECT_EQ(offset, 0x4020U);
    EXPECT_EQ(length, 12U);
    EXPECT_EQ(look("0000abcd l     O .data\t0000abcd jsonmib_prod\n"),
              "0 Info jsonmib_prod offset 43981, length 43981\n");
    EXPECT_EQ(look(symbol("jsonmib_prod2") + symbol("jsonmib_prod")),
              "-1 Error Mismatched jsonmib symbol name[jsonmib_prod2] and prod_string[prod]\n");
    EXPECT_EQ(look(symbol("jsonmib_prod", "0")),
              "-1 Error parser error: missing offset or length!\n");
    EXPECT_EQ(look(symbol("jsonmib_prod", "4020", "0")),
              "-1 Error parser error: missing offset or length!\n");
    EXPECT_EQ(look("jsonmib_prod\n"),
              "-1 Error Mismatched jsonmib symbol name[] and prod_string[prod]\n");
    EXPECT_TRUE(has(look(symbol("jsonmib_prod" + std::string(400, 'x'))), "-1 Error Mismatched"));
    EXPECT_EQ(look(symbol("other")), "-1 Info Empty jsonmib symbol file.\n");
    EXPECT_EQ(offset + length, 0U);
}

TEST_F(mibsource, sections)
{
    const std::string json = "{'a':'0123456789 and so on','b':77}"; /* 35 bytes */
    const auto extract = [&](const std::string& heads, const std::string& bytes, uint32_t size) {
        objdump("", heads, bytes);
        int ret = 0;
        const std::string log =
            log_of([&] { ret = tpg_parse_jsonmib_string(ctx.get(), &card, 0x4020, size); });
        EXPECT_EQ(ret, log.empty() ? static_cast<int>(size) : -1);
        const std::string text = read_file("/tmp/card/libmib.so.json");
        fs::remove("/tmp/card/libmib.so.json");
        return log.substr(0, log.find('\n')) + text;
    };
    EXPECT_EQ(extract(section(".data", "23"), dump(json), 35), json);
    EXPECT_EQ(extract(section(".data", "40"), dump(json), 20), json.substr(0, 20));
    EXPECT_EQ(extract(section(".data.rel.ro", "28") + section(".data", "0"), dump(json), 35), json);
    EXPECT_EQ(extract(section(".data.rel.ro", "8") + section(".data", "23"), dump(json), 35),
              "Error a section of 8 bytes cannot hold the 35 bytes of the document");
    const std::string bytes("\x80\xff\n\x01\0\x7f", 6);
    EXPECT_EQ(extract(section(".data", "6"), dump(bytes), 6), bytes);
    EXPECT_EQ(extract(section(".data", "23"), "Contents\n", 35),
              "Error cannot find start line of data section file");
    EXPECT_EQ(extract(section(".data", "ffffffff"), dump(json), 35),
              "Error calloc failed, File too large");
    for (const std::string& heads :
         {section(".text", "23"), section(".data", "0"), std::string("  9 .data"), std::string()}) {
        EXPECT_EQ(extract(heads, dump(json), 35),
                  "Error parsing .data section size failed! data_size is 0");
    }
    EXPECT_TRUE(has(read_file("/tmp/bin/calls"),
                    "-s -j .data --start-address=0x4020 " + std::string(LIBRARY) + "\n"));
}

TEST_F(mibsource, links_are_not_followed)
{
    const std::string json = "/tmp/card/libmib.so.json";
    objdump(symbol("jsonmib_prod"), section(".data", "0c"), dump("{\"a\":\"1234\"}"));
    std::vector<std::string> outputs = {"_jsonmib_sym", "_data", "_section_head", ".json"};
    for (std::string& output : outputs) {
        output.insert(0, LIBRARY);
        write_file(output + "_target", "mine");
        fs::create_symlink(output + "_target", output);
    }
    EXPECT_TRUE(locate().starts_with("0 "));
    for (const std::string& output : outputs) {
        EXPECT_FALSE(fs::is_symlink(output)) << output;
        EXPECT_EQ(read_file(output + "_target"), "mine") << output;
    }
    EXPECT_EQ(read_file(json), "{\"a\":\"1234\"}");
}

TEST_F(mibsource, long_commands)
{
    const std::string folder = "/tmp/card/" + std::string(100, 'd');
    const std::string library = folder + "/libmib.so";
    fs::create_directories(folder);
    write_file(library, "");
    set_text(card.libmib_path, library);
    EXPECT_TRUE(
        has(locate(), " failed, File name too long\nError tpg_snmp_register_jsonmib(): No"));
    EXPECT_FALSE(fs::exists("/tmp/bin/calls"));
    EXPECT_EQ(read_file(library + ".json"), "[7]\n");
}

TEST_F(mibsource, where_the_document_comes_from)
{
    const std::string json = "/tmp/card/libmib.so.json";
    const auto from_library = [] {
        objdump(symbol("jsonmib_prod"), section(".data", "3"), dump("[1]"));
    };
    from_library();
    EXPECT_TRUE(locate().starts_with("0 Info jsonmib_prod offset 16416, length 12\n"));
    EXPECT_EQ(read_file(json), "[7]\n"); /* the section is too short for the symbol */
    objdump(symbol("jsonmib_prod", "4020", "3"), section(".data", "3"), dump("[1]"));
    EXPECT_TRUE(locate().starts_with("0 "));
    EXPECT_EQ(read_file(json), "[1]");
    write_file(BUILT_IN, "[2]");
    objdump(symbol("jsonmib_prod", "4020", "3"), section(".data", "3"), dump("[1!"));
    EXPECT_TRUE(
        has(locate(), "Error tpg_snmp_register_jsonmib(): Bad libmib.so.json format, to use"));
    EXPECT_EQ(fs::read_symlink(json), BUILT_IN);
    write_file(BUILT_IN, "");
    fs::remove(json);
    EXPECT_TRUE(has(locate(), "Warn Fully reversing libmib file /tmp/card/libmib.so ...\n"));
    EXPECT_EQ(read_file(json), "[7]\n");

    fs::remove(LIBRARY);
    for (const uint8_t slot : {uint8_t{1}, uint8_t{2}}) {
        card.slot_no = slot;
        EXPECT_TRUE(locate().starts_with("0 Info non-generic product prod on slot_no "));
        EXPECT_EQ(fs::is_symlink(json), slot > 1);
    }
    fs::remove(json);
    EXPECT_TRUE(
        has(locate(), "Error Cannot find jsonmib file for non-generic product prod on slot"));
}

TEST_F(mibsource, the_product_that_is_never_taken_from_its_library)
{
    objdump(symbol("jsonmib_tolvk", "4020", "3"), section(".data", "3"), dump("[1]"));
    set_text(card.prod_string, "tolvk");
    EXPECT_TRUE(has(locate(), "No json string is found in lib.so file, to try built-in\n"));
    EXPECT_EQ(read_file("/tmp/card/libmib.so.json"), "[7]\n");
}
