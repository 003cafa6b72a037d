/* What objdump prints of a card's library, in place of the tool. */

#include "fuzz.h"

#include "tpg_main_mibsource.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

constexpr char LIBRARY[] = "/tmp/lib.so";

/* The symbol line, the section heads and the dump of the data section. */
static std::string_view symbols, heads, dump;

static int print(const char* command)
{
    const char* output = strstr(command, " > ");
    if (output != nullptr) {
        const bool is_head = strncmp(command, "objdump -h", 10) == 0;
        const bool is_dump = strncmp(command, "objdump -s", 10) == 0;
        fuzz_write_file(output + 3, is_head ? heads : is_dump ? dump : symbols);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input_t in = {data, size};
    tpg_context_t* ctx = fuzz_begin(&in);
    symbols = fuzz_part(&in);
    heads = fuzz_part(&in);
    dump = fuzz_part(&in);
    fuzz_system = print;
    fuzz_write_file(LIBRARY, "library");
    tpg_libmib_update_t card = fuzz_card(2, "family", LIBRARY);
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
    fuzz_end(ctx);
    return 0;
}
