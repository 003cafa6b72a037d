#ifndef BENCH_TABLE_H
#define BENCH_TABLE_H

/*
 * The tables that every subject serves, as arithmetic: a cell is told by its
 * number in SNMP order. The last index is the slot.
 */

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

using bench_oid = unsigned long; /* as the SNMP library's on this host */

enum bench_subject { /* also the arc behind BENCH_ROOT */
                     BENCH_TPG = 1,
                     BENCH_LIMIT,
                     BENCH_LIVE,
                     BENCH_ITERATOR,
                     BENCH_PASS,
                     BENCH_OTHER, /* another build of the agent */
};

constexpr bench_oid BENCH_ROOT[] = {1, 3, 6, 1, 4, 1, 32473, 100};
constexpr size_t BENCH_ROOT_LEN = std::size(BENCH_ROOT);
constexpr size_t BENCH_OID_MAX = BENCH_ROOT_LEN + 7; /* subject, table, entry, column, indexes */
constexpr uint32_t BENCH_COLUMNS = 3;
constexpr size_t BENCH_DIGITS_MAX = 5;

/* How many values each place behind a table's OID has, all from 1: entry, column, indexes. */
struct bench_table_t {
    uint32_t digits;
    uint32_t radix[BENCH_DIGITS_MAX];
};

constexpr bench_table_t BENCH_TABLES[] = {
    {4, {1, BENCH_COLUMNS, 8, 3}},
    {4, {1, BENCH_COLUMNS, 64, 15}},
    {4, {1, BENCH_COLUMNS, 255, 15}},
    {5, {1, BENCH_COLUMNS, 64, 64, 15}},
    {4, {1, 8, 64, 15}},
};

/* What a cell is asked of a slot's daemon as. */
struct bench_var_t {
    uint32_t slot;
    uint32_t var_id;
    uint32_t index;
};

/* Cells below one value of the places in front of place i. */
inline uint32_t bench_block(const bench_table_t* table, size_t i)
{
    uint32_t cells = 1;
    for (; i < table->digits; i++) {
        cells *= table->radix[i];
    }
    return cells;
}

/* The number of the first cell behind suffix; the table's cell count when there is none. */
inline uint32_t bench_after(const bench_table_t* table, const bench_oid* suffix, size_t len)
{
    uint32_t at = 0;
    for (size_t i = 0; i < table->digits; i++) {
        if (i >= len || suffix[i] < 1) {
            return at * bench_block(table, i);
        }
        if (suffix[i] > table->radix[i]) {
            return (at + 1) * bench_block(table, i);
        }
        at = at * table->radix[i] + static_cast<uint32_t>(suffix[i] - 1);
    }
    return at + 1;
}

/* Writes the cell's places behind the table's OID; returns how many. */
inline size_t bench_suffix(const bench_table_t* table, uint32_t cell, bench_oid* suffix)
{
    for (size_t i = table->digits; i-- > 0; cell /= table->radix[i]) {
        suffix[i] = cell % table->radix[i] + 1;
    }
    return table->digits;
}

/* The number of the very cell; the cell count when suffix names none. */
inline uint32_t bench_exact(const bench_table_t* table, const bench_oid* suffix, size_t len)
{
    const uint32_t after = bench_after(table, suffix, len);
    bench_oid same[BENCH_DIGITS_MAX] = {};
    if (after == 0 || len != table->digits ||
        !std::equal(suffix, suffix + len, same, same + bench_suffix(table, after - 1, same))) {
        return bench_block(table, 0);
    }
    return after - 1;
}

/* The table's OID below a subject; returns its length. */
inline size_t bench_table_oid(int subject, size_t table, bench_oid* name)
{
    bench_oid* end = std::copy_n(BENCH_ROOT, BENCH_ROOT_LEN, name);
    *end++ = static_cast<bench_oid>(subject);
    *end++ = table + 1;
    return static_cast<size_t>(end - name);
}

/* The cell's OID, to a name of BENCH_OID_MAX; returns its length. */
inline size_t bench_cell_oid(int subject, size_t table, uint32_t cell, bench_oid* name)
{
    const size_t len = bench_table_oid(subject, table, name);
    return len + bench_suffix(&BENCH_TABLES[table], cell, name + len);
}

inline bench_var_t bench_var(const bench_table_t* table, uint32_t cell)
{
    bench_oid place[BENCH_DIGITS_MAX] = {};
    const size_t last = bench_suffix(table, cell, place) - 1;
    uint32_t index = 0;
    for (size_t i = 2; i < last; i++) {
        index = index << 8U | static_cast<uint32_t>(place[i] - 1);
    }
    return {static_cast<uint32_t>(place[last]), static_cast<uint32_t>(place[1]), index};
}

/* The value that the daemons, or a subject's memory, have for a variable. */
inline int32_t bench_value(uint32_t var_id, uint32_t index)
{
    return static_cast<int32_t>(var_id << 16U | index);
}

#endif
