/* The author's program: documents into libraries and out of them, and the page that leads to a
 * card. */

#include "world.h"

#include <algorithm>
#include <regex>

namespace fs = std::filesystem;

constexpr char FOLDER[] = "/tmp/author";

struct Library : World {
    void SetUp() override
    {
        World::SetUp();
        clear_folder(FOLDER);
        for (const char* program : {TPG_JSONMIB_BIN, TPG_CHASSIS_BIN}) {
            fs::create_symlink(program, fs::path("/tmp/bin") / fs::path(program).filename());
        }
    }
};

/* What a line of the shell says in the author's folder, and its status unless that is 0. */
static std::string shell(const std::string& line)
{
    return run({"bash", "-c", "cd " + std::string(FOLDER) + "; " + line + " || echo status $?"});
}

TEST_F(Library, DocumentsComeOutAsTheyWentIn)
{
    const std::string examples = TPG_SOURCE_DIR "/doc/examples/";
    std::string big = "{\"big\": \"";
    for (int i = 0; i < 300000; i++) {
        big += i % 256 == '"' || i % 256 == '\\' || i % 256 < ' ' ? ' ' : static_cast<char>(i);
    }
    const std::string documents[] = {read_file(examples + "line2.json"),
                                     read_file(examples + "psu4.json"), big + "\"}\n"};
    for (const std::string& text : documents) {
        for (const char* compiler : {"gcc -std=c99 -x c", "g++ -std=c++20 -x c++"}) {
            write_file(FOLDER + std::string("/it.json"), text);
            EXPECT_EQ(shell("tpg-jsonmib embed --product=it_1 - <it.json | " +
                            std::string(compiler) +
                            " -Wall -Wextra -pedantic -Werror -shared -fPIC -o libmib_it_1.so - &&"
                            "tpg-jsonmib extract libmib_it_1.so | cmp - it.json"),
                      "");
        }
    }
    EXPECT_EQ(shell("ls; ls /tmp | grep tpg-jsonmib-"), "it.json\nlibmib_it_1.so\nstatus 1\n");
}

TEST_F(Library, WhatIsWrongIsSaid)
{
    const std::string it = R"(unsigned char jsonmib_it[] __attribute__((used)) = "{\"aa\":1}";)";
    const std::string good = "static " + it, call = "; tpg-jsonmib extract --product=it ";
    const struct {
        std::string source, command, said; /* the library's source, if there is one */
    } cases[] = {
        {"int other;", "", "no symbol jsonmib_it\n"},
        {"int jsonmib_it2 = 1;", "", "jsonmib_it2: of another product?"},
        {it, "", "jsonmib_it is global"},
        {"static const " + it, "", "jsonmib_it is const"},
        {"static char jsonmib_it[8] __attribute__((used));", "", "jsonmib_it has no value"},
        {good, "g++ -shared -fPIC -x c++ it.c -o libmibit.so", "but _ZL10jsonmib_it: C++"},
        {good, "mv it.c jsonmib_it.c; gcc -shared -fPIC jsonmib_it.c -o libmibit.so",
         "jsonmib_it.c stands in front of jsonmib_it,"},
        {good, "strip libmibit.so", "the library is stripped"},
        {good, "mv libmibit.so jsonmib_it; cd /" + call + "/tmp/author/jsonmib_it", "own name"},
        {good, "mv libmibit.so 'it;'" + call + "'it;'", "a character that is not allowed"},
        {good + "int f(); int (*const t)() = f;", "", "cannot hold the 9 bytes"},
        {std::regex_replace(good, std::regex(":"), ""), "", "would not use this: jsonmib_check"},
        {"", "touch libmibit.so", "no library of any machine"},
        {"", "", "cannot read libmibit.so: No such file"},
        {"", "mkdir libmibit.so", "it is no file"},
        {good, "PATH=/none; " TPG_JSONMIB_BIN " extract libmibit.so", "there is no objdump"},
        {"", "tpg-jsonmib extract ./a+b.so", "cannot be in a symbol"},
        {"", "echo [ | tpg-jsonmib embed --product=it -", "would not take <stdin>: "},
        {"", "tpg-jsonmib embed --product=it /dev/null", "would not take /dev/null: invalid file"},
        {"", "tpg-jsonmib embed --product=sixteencharacter -", "at most 15 characters"},
    };
    for (const auto& [source, command, said] : cases) {
        clear_folder(FOLDER);
        if (!source.empty()) {
            write_file(FOLDER + std::string("/it.c"), source + "\n");
            EXPECT_EQ(shell("gcc -shared -fPIC it.c -o libmibit.so"), "");
        }
        const bool calls = has(command, "tpg-jsonmib");
        const std::string outcome =
            shell(command + (calls ? "" : call.substr(command.empty() ? 1 : 0) + "libmibit.so"));
        EXPECT_TRUE(has(outcome, said) && has(outcome, "status ")) << command << source << outcome;
    }
}

/* The page's block of this number below the heading, as it is shown. */
static std::string block(int number)
{
    const std::string page = read_file(TPG_SOURCE_DIR "/doc/jsonmib.md"), mark = "\n```";
    size_t at = page.find("\n## From nothing to a card that answers");
    for (int i = 0; i < 2 * number - 1; i++) {
        at = page.find(mark, at + 1);
    }
    const size_t begin = page.find('\n', at + mark.size()) + 1;
    return page.substr(begin, page.find(mark, begin) + 1 - begin);
}

TEST_F(Library, FromNothingToACardThatAnswers)
{
    write_file("/tmp/run/snmpd.conf", read_file(TPG_SOURCE_DIR "/packaging/snmpd-agentx.conf"));
    run({"sed", "-i", "s/^#\\(view\\|rocommunity\\) /\\1 /", "/tmp/run/snmpd.conf"});
    w.snmpd = proc_start("snmpd", {"snmpd", "-f", "-Le", "-C", "-c", "/tmp/run/snmpd.conf", "-p",
                                   "/tmp/run/snmpd.pid"});
    tpg_start(&w);
    std::string commands = block(1), walk = block(2);
    EXPECT_LE(std::count(commands.begin(), commands.end(), '\n'), 40);
    write_file("/tmp/run/commands", commands);
    w.chassis = proc_start("chassis", {"bash", "-e", "/tmp/run/commands"});
    const std::string shown = block(3);
    EXPECT_TRUE(wait_for([&] {
        return run({"bash", "-ec", walk}) == shown;
    })) << run({"bash", "-ec", walk});
}
