/* The card's index of a row: made, taken apart, and as a position. */
#include "tpg_jsonmib_index.h"

constexpr uint32_t BYTE_BITS = 8;
constexpr uint32_t BYTE_MASK = 0xff;

uint32_t jsonmib_index_of(const uint32_t* values, uint32_t total)
{
    uint32_t index = 0;
    for (uint32_t i = 0; i < total; i++) {
        index = (index << BYTE_BITS) | (values[i] - 1);
    }
    return index;
}

jsonmib_index_parts_t jsonmib_index_parts(uint32_t index, uint32_t total)
{
    jsonmib_index_parts_t parts = {};
    for (uint32_t i = total; i-- > 1;) {
        parts.part[i] = index & BYTE_MASK;
        index >>= BYTE_BITS;
    }
    if (total > 0) {
        parts.part[0] = index;
    }
    return parts;
}

uint32_t jsonmib_index_bytes(uint32_t index, uint32_t total)
{
    static_assert(JSONMIB_CARD_INDEXES < sizeof(index));
    return index & ((1U << (total * BYTE_BITS)) - 1);
}

uint64_t jsonmib_index_position(const jsonmib_table_info_t* jsonmib_table, uint32_t index,
                                uint32_t total)
{
    const jsonmib_index_parts_t parts = jsonmib_index_parts(index, total);
    uint64_t position = 0;
    for (uint32_t i = 0; i < total; i++) {
        position = position * jsonmib_table->index_info[i].range[1] + parts.part[i];
    }
    return position;
}
