/* A live helper of the master's pass_persist: a line with the command, a line with the OID. */

#include "exchange.h"

#include <cstdlib>

static size_t read_oid(const char* text, bench_oid* name, size_t most);
static void answer(bool next);

int main()
{
    char line[256];
    while (fgets(line, sizeof(line), stdin) != nullptr) {
        if (strcmp(line, "PING\n") == 0) {
            puts("PONG");
        } else {
            answer(strcmp(line, "getnext\n") == 0);
        }
        fflush(stdout);
    }
    return EXIT_SUCCESS;
}

static size_t read_oid(const char* text, bench_oid* name, size_t most)
{
    size_t len = 0;
    while (len < most && *text == '.') {
        char* end = nullptr;
        name[len++] = strtoul(text + 1, &end, 10);
        text = end;
    }
    return len;
}

static void answer(bool next)
{
    char line[256];
    bench_oid name[BENCH_OID_MAX] = {};
    if (fgets(line, sizeof(line), stdin) == nullptr) {
        return;
    }
    constexpr size_t TABLE_AT = BENCH_ROOT_LEN + 1;
    size_t len = read_oid(line, name, BENCH_OID_MAX);
    for (size_t number = std::max<size_t>(name[TABLE_AT], 1); number <= std::size(BENCH_TABLES);
         number++, len = 0) {
        const bench_table_t* table = &BENCH_TABLES[number - 1];
        const bench_oid* suffix = name + TABLE_AT + 1;
        const size_t suffix_len = len > TABLE_AT + 1 ? len - TABLE_AT - 1 : 0;
        const uint32_t cell =
            next ? bench_after(table, suffix, suffix_len) : bench_exact(table, suffix, suffix_len);
        if (cell < bench_block(table, 0)) {
            const bench_var_t var = bench_var(table, cell);
            int32_t value = 0;
            if (exchange_get(&var, &value) != 0) {
                break;
            }
            len = bench_cell_oid(BENCH_PASS, number - 1, cell, name);
            for (size_t i = 0; i < len; i++) {
                printf(".%lu", name[i]);
            }
            printf("\ninteger\n%d\n", value);
            return;
        }
        if (!next) {
            break;
        }
    }
    puts("NONE");
}
