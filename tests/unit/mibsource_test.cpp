/* A card's document out of what objdump prints of its library; the objdump is the test's own. */

#include "tpg_main_mibsource.h"
#include "unit.h"

#include <filesystem>

namespace fs = std::filesystem;

constexpr char LIBRARY[] = "/tmp/card/libmib.so";
constexpr char JSON[] = "/tmp/card/libmib.so.json";

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
    std::string lines = "\nlibmib.so:     file format elf32\n\nContents of section .data:";
    for (size_t i = 0; i < text.size(); i++) {
        char digits[32];
        snprintf(digits, sizeof(digits), "%s%s%02x", i % 16 == 0 ? "  no hex\n 4020" : "",
                 i % 4 == 0 ? " " : "", static_cast<unsigned char>(text[i]));
        lines += digits;
    }
    return lines + "  no hex\n";
}

struct mibsource : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    tpg_libmib_register_info_t card = {};
    std::string path = getenv("PATH");

    void SetUp() override
    {
        fs::create_directories("/tmp/card/bin");
        write_file("/tmp/card/bin/objdump", "#!/bin/sh\ncat /tmp/card/out$1\n");
        fs::permissions("/tmp/card/bin/objdump", fs::perms::owner_all);
        setenv("PATH", ("/tmp/card/bin:" + path).c_str(), 1);
        write_file(LIBRARY, "");
        set_text(card.prod_string, "prod");
        set_text(card.libmib_path, LIBRARY);
    }
    void TearDown() override
    {
        setenv("PATH", path.c_str(), 1);
        fs::remove_all("/tmp/card");
    }
    static void objdump(const std::string& symbols, const std::string& heads,
                        const std::string& dump)
    {
        write_file("/tmp/card/out-t", symbols);
        write_file("/tmp/card/out-h", heads);
        write_file("/tmp/card/out-s", dump);
    }
};

TEST_F(mibsource, sections)
{
    const std::string json = "{'a':'0123456789 and so on','b':77}"; /* 35 bytes */
    const std::string bytes("\x80\xff\n\x01\0\x7f", 6);
    struct {
        std::string heads, dump;
        uint32_t size;
        std::string outcome;
    } cases[] = {
        {section(".data", "23"), dump(json), 35, "35 " + json},
        {section(".data", "40"), dump(json), 20, "20 " + json.substr(0, 20)},
        {section(".data.rel.ro", "28") + section(".data", "0"), dump(json), 35, "35 " + json},
        {section(".data.rel.ro", "8") + section(".data", "23"), dump(json), 35,
         "-1 Error a section of 8 bytes cannot hold the 35 bytes of the document\n"},
        {section(".data", "6"), dump(bytes), 6, "6 " + bytes},
        {section(".data", "23"), "Contents\n", 35,
         "-1 Error cannot find start line of data section file\n"},
        {section(".data", "ffffffff"), dump(json), 35, "-1 Error calloc failed, File too large\n"},
        {"  9 .data", dump(json), 35, "-1 Error parsing .data section size failed!"}};
    for (const auto& [heads, text, size, expected] : cases) {
        objdump("", heads, text);
        std::string outcome = outcome_of([&, length = size] {
            return tpg_parse_jsonmib_string(ctx.get(), &card, 0x4020, length);
        });
        outcome += read_file(JSON);
        EXPECT_TRUE(outcome.starts_with(expected)) << outcome;
        EXPECT_EQ(outcome.starts_with("-1"), !fs::remove(JSON));
    }
}

TEST_F(mibsource, links_are_not_followed)
{
    objdump(symbol("jsonmib_prod"), section(".data", "0c"), dump("{\"a\":\"1234\"}"));
    const char* suffixes[] = {"_jsonmib_sym", "_data", "_section_head", ".json"};
    for (const char* suffix : suffixes) {
        fs::create_symlink("/tmp/card/mine", std::string(LIBRARY) + suffix);
    }
    log_of([&] { tpg_locate_jsonmib(ctx.get(), &card); });
    for (const char* suffix : suffixes) {
        EXPECT_FALSE(fs::is_symlink(std::string(LIBRARY) + suffix)) << suffix;
    }
    EXPECT_FALSE(fs::exists("/tmp/card/mine"));
    EXPECT_EQ(read_file(JSON), "{\"a\":\"1234\"}");
}
