#ifndef TPG_MAIN_MIBSOURCE_H
#define TPG_MAIN_MIBSOURCE_H

/*
 * A card's document: out of its MIB library (by way of objdump), from the
 * built-in copy, or by reversing the library.
 */

#include "tpg.h"

#include <cstddef>

/* The symbol of a card's document is this and the product. */
constexpr char TPG_SYMBOL_PREFIX[] = "jsonmib_";

/* The product whose library has a document that is not to be used. */
constexpr char TPG_NEVER_FROM_LIBRARY[] = "tolvk";

/*
 * Finds the document's symbol in the card's library: its address goes to
 * *offset, its size in bytes to *length. 0, or -1 (logged, both 0 or unusable).
 */
int tpg_get_jsonmib_string(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                           uint32_t* offset, uint32_t* length);

/*
 * Extracts length bytes at offset of the library into the JSON file beside it.
 * Returns the byte count of the last write (0 when length is 0), or -1 (logged).
 */
int tpg_parse_jsonmib_string(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo,
                             uint32_t offset, uint32_t length);

/*
 * Converts the dump of the library's data section. *data_record is a heap
 * array of words that holds the dump's bytes in dump order; the caller frees
 * it, also after a failure. Its size in bytes goes to *data_bytes when that
 * is asked for. 0 or -1 (logged).
 */
int tpg_proc_data_section(tpg_context_t* ctx, char* libmib_so_dir, uint32_t** data_record,
                          size_t* data_bytes = nullptr);

/*
 * 0 when what registering the card would write stays out of the folders of the
 * switches and of the built-in documents; otherwise logged, and -1. Reading
 * what is in there is no matter.
 */
int tpg_check_libmib_path(tpg_context_t* ctx, const tpg_libmib_register_info_t* libmib_reginfo);

/*
 * Leaves the card's document in the JSON file beside its library, from
 * whichever source has it. 0, or -1 (logged).
 */
int tpg_locate_jsonmib(tpg_context_t* ctx, tpg_libmib_register_info_t* libmib_reginfo);

/* The JSON file beside a card's library. */
struct tpg_json_path_t {
    char path[TPG_CMD_MAX];
};
tpg_json_path_t tpg_jsonmib_path(const tpg_libmib_register_info_t* libmib_reginfo);

#endif
