/* A card's document out of what objdump prints of its library; the objdump is the test's own. */

#include "tpg_main_mibsource.h"
#include "tpg_main_registry.h"
#include "unit.h"

#include <map>

namespace fs = std::filesystem;

static const std::string LIBRARY = "/tmp/card/libmib.so", JSON = LIBRARY + ".json";

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
    tpg_libmib_register_info_t card =
        client_update(TPG_MSG_LIBMIB_REGISTER, 3, "prod", "fam", 0, LIBRARY).libmib_update;

    void SetUp() override
    {
        static const std::string path = getenv("PATH");
        clear_folder("/tmp/card");
        write_file("/tmp/card/objdump", "#!/bin/sh\ncat /tmp/card/out$1\n", 0700);
        setenv("PATH", ("/tmp/card:" + path).c_str(), 1);
        write_file(LIBRARY, "");
        write_file("/tmp/card/out-t", "4020 l     O .data\t0c              jsonmib_prod\n");
    }
    void TearDown() override
    {
        fs::remove_all("/tmp/card");
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
        {section(".data", "ffffffff"), dump(json), 35, "-1 Error calloc failed, File too large: a .data section of 4294967295 bytes, "
         "the limit is 67108864\n"},
        {"  9 .data", dump(json), 35, "-1 Error parsing .data section size failed!"}};
    for (const auto& [heads, text, size, expected] : cases) {
        write_file("/tmp/card/out-h", heads);
        write_file("/tmp/card/out-s", text);
        std::string outcome = outcome_of([&, length = size] {
            return tpg_parse_jsonmib_string(ctx.get(), &card, 0x4020, length);
        });
        outcome += read_file(JSON);
        EXPECT_TRUE(outcome.starts_with(expected)) << outcome;
        EXPECT_EQ(outcome.starts_with("-1"), !fs::remove(JSON));
    }
}

TEST_F(mibsource, tools_that_fail_are_spoken_of)
{
    write_file("/tmp/card/objdump", "#!/bin/sh\nexit 3\n", 0700);
    uint32_t offset = 1, length = 1;
    EXPECT_EQ(outcome_of([&] {
                  return tpg_get_jsonmib_string(ctx.get(), &card, &offset, &length);
              }),
              "-1 Warn command objdump -h " + LIBRARY + " > /dev/null ended with exit status 3\n"
              "Info Empty jsonmib symbol file.\n");
    write_file("/tmp/card/objdump", "#!/bin/sh\necho '4020 l     O .data\t00 jsonmib_prod'\n", 0700);
    EXPECT_EQ(outcome_of([&] {
                  return tpg_get_jsonmib_string(ctx.get(), &card, &offset, &length);
              }),
              "-1 Error parser error: missing offset or length!\n");
}

TEST_F(mibsource, links_are_not_followed)
{
    write_file("/tmp/card/out-h", section(".data", "0c"));
    write_file("/tmp/card/out-s", dump("{\"a\":\"1234\"}"));
    const char* suffixes[] = {"_jsonmib_sym", "_data", "_section_head", ".json"};
    for (const char* suffix : suffixes) {
        fs::create_symlink("/tmp/card/mine", LIBRARY + suffix);
    }
    log_of([&] { tpg_locate_jsonmib(ctx.get(), &card); });
    for (const char* suffix : suffixes) {
        EXPECT_FALSE(fs::is_symlink(LIBRARY + suffix)) << suffix;
    }
    EXPECT_FALSE(fs::exists("/tmp/card/mine"));
    EXPECT_EQ(read_file(JSON), "{\"a\":\"1234\"}");
}

/* What is in the folders of the switches and of the built-in documents. */
static std::map<std::string, std::string> guarded_files()
{
    std::map<std::string, std::string> files;
    for (const char* folder : {TPG_FLASH_DIR, TPG_BUILT_IN_DIR}) {
        for (const auto& file : fs::recursive_directory_iterator(folder)) {
            files[file.path()] = file.is_regular_file() && !file.is_symlink()
                                     ? read_file(file.path())
                                     : "";
        }
    }
    return files;
}

TEST_F(mibsource, no_path_reaches_what_belongs_to_others)
{
    constexpr char SERVED[] = "Registered product", REFUSED[] = "Error refused a card: libmib_path";
    const std::string flash = std::string(TPG_FLASH_DIR) + "/fam_slot05", built_in = TPG_BUILT_IN_DIR;
    clear_folder(flash);
    write_file(flash + "/sendtrap.json", "{\"mine\":1}");
    write_file(built_in + "/libmibprod.so.json", "{\"prod\":1}");
    write_file(built_in + "/libmibother.so.json", "{\"other\":1}");
    write_file(built_in + "/library", "");
    fs::create_symlink(flash, "/tmp/card/flash");
    fs::create_symlink(built_in, "/tmp/card/built_in");
    write_file("/tmp/card/out-t", "");
    const struct {
        std::string path;
        int slot;
        const char* outcome;
    } cases[] = {
        {flash + "/sendtrap", 3, REFUSED},
        {"/mnt/../mnt/flash0//cards/./fam_slot05/sendtrap", 3, REFUSED},
        {"/tmp/card/flash/sendtrap", 3, REFUSED},
        {std::string(TPG_FLASH_DIR) + "/new", 3, REFUSED},
        {built_in + "/libmibother.so", 3, REFUSED},
        {"/tmp/card/built_in/libmibother.so", 15, REFUSED},
        {built_in + "/library", 1, REFUSED}, /* it would be extracted */
        {built_in + "/libmibother.so", 1, SERVED},
        {built_in + "/libmibother.so", 0, SERVED},
        {built_in + "/libmibprod.so", 3, SERVED}, /* where the link would lead */
        {built_in, 3, SERVED}, /* beside that folder nothing is guarded */
        {LIBRARY, 3, SERVED},
    };
    const auto before = guarded_files();
    for (const auto& [path, slot, outcome] : cases) {
        /* Where a tool that makes a link or writes a file would go astray. */
        fs::remove(JSON);
        fs::create_symlink(built_in, JSON);
        auto update = client_update(TPG_MSG_LIBMIB_REGISTER, slot, "prod", "fam", 0, path);
        const std::string log = log_of([&] {
            tpg_proc_libmib_register(ctx.get(), &update.libmib_update);
        });
        EXPECT_TRUE(has(log, outcome)) << path << log;
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n') == 1, outcome == REFUSED) << log;
        EXPECT_EQ(guarded_files(), before) << path;
        log_of([&] { tpg_proc_libmib_unregister(ctx.get(), &update.libmib_update); });
    }
}
