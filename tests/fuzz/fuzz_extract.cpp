/* What objdump prints of a card's library, in place of the tool. */

#include "fuzz.h"

#include "tpg_main_mibsource.h"

#include <sys/stat.h>

/* The symbol line, the section heads and the dump of the data section. */
static std::string_view symbols, heads, dump;

static int print(const char* command)
{
    const char* output = strstr(command, " > ");
    if (output != nullptr) {
        const bool is_head = strncmp(command, "objdump -h", 10) == 0;
        const bool is_dump = strncmp(command, "objdump -s", 10) == 0;
        write_file(output + 3, is_head ? heads : is_dump ? dump : symbols);
    }
    return 0;
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    symbols = fuzz_part(&in);
    heads = fuzz_part(&in);
    dump = fuzz_part(&in);
    fuzz_system = print;
    write_file("/tmp/lib.so", "library");
    auto card =
        client_update(TPG_MSG_LIBMIB_REGISTER, 2, "qmc", "family", 0, "/tmp/lib.so").libmib_update;
    uint32_t offset = 0;
    uint32_t length = 0;
    if (tpg_get_jsonmib_string(ctx, &card, &offset, &length) == 0 &&
        tpg_parse_jsonmib_string(ctx, &card, offset, length) >= 0) {
        struct stat st = {};
        FUZZ_REQUIRE(stat(tpg_jsonmib_path(&card).path, &st) == 0 && st.st_size == length);
    }
    uint32_t* words = nullptr;
    size_t bytes = 0;
    if (tpg_proc_data_section(ctx, card.libmib_path, &words, &bytes) == 0) {
        FUZZ_REQUIRE(words != nullptr && bytes > 0);
    }
    free(words);
    tpg_locate_jsonmib(ctx, &card);
}
