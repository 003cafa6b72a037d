/* A card's document: parsed, registered, its tables and traps used, promoted, and withdrawn. */

#include "fuzz.h"

#include "tpg_json.h"
#include "tpg_jsonmib.h"
#include "tpg_main_registry.h"
#include "tpg_main_trap.h"

#include <climits>
#include <json-c/json_visit.h>

constexpr int SLOTS[] = {2, 7}; /* the master's, and one that references it */

static void send_traps(tpg_context_t* ctx, const tpg_jsonmib_register_info_t* card)
{
    for (uint32_t i = 0; card->fault_json_table != nullptr && i < card->fault_table_reginfo_sum;
         i++) {
        const jsonmib_table_info_t* table = card->fault_json_table[i];
        for (const uint32_t index : {0U, 1U, 0x101U, 0xfffU, 0x1003U, 0x10ff03U}) {
            std::string message = notify(
                SLOTS[index % 2], table == nullptr ? 0 : table->trap_info.fault_present_var_id,
                index, big_endian(0) + big_endian(0) + '\x10' + std::string(16, '\0'));
            message.resize(sizeof(tpg_msg_trap_notify_t));
            tpg_msg_trap_notify(ctx, reinterpret_cast<tpg_msg_trap_notify_t*>(message.data()),
                                nullptr);
        }
    }
}

static void use_tables(tpg_context_t* ctx)
{
    fuzz_use_tables(ctx);
    for (const int slot : SLOTS) {
        send_traps(ctx, &ctx->jsonmib_reg_info[slot - 1]);
    }
}

void fuzz_one(tpg_context_t* ctx, std::string_view in)
{
    write_file("/tmp/lib.so.json", in);
    jsonmib_check_jsonfile(ctx, "/tmp/lib.so.json");
    clear_folder("/mnt/flash0/cards/family_slot02");
    clear_folder("/mnt/flash0/cards/family_slot07");
    tpg_libmib_update_t cards[std::size(SLOTS)];
    for (size_t i = 0; i < std::size(SLOTS); i++) {
        cards[i] =
            client_update(TPG_MSG_LIBMIB_REGISTER, SLOTS[i], "qmc", "family", 0, "/tmp/lib.so")
                .libmib_update;
        tpg_proc_libmib_register(ctx, &cards[i]);
    }
    use_tables(ctx);
    tpg_proc_libmib_unregister(ctx, &cards[0]);
    use_tables(ctx);
}

/* ---- mutation that keeps the text a document ---- */

/* A value in its place: a member of an object, or an element of an array. */
struct place_t {
    json_object* value;
    json_object* parent;
    std::string key;
    size_t index;
};

static int list_place(json_object* value, int flags, json_object* parent, const char* key,
                      size_t* index, void* places)
{
    if (flags == 0 && parent != nullptr) {
        static_cast<std::vector<place_t>*>(places)->push_back(
            {value, parent, key == nullptr ? "" : key, index == nullptr ? 0 : *index});
    }
    return JSON_C_VISIT_RETURN_CONTINUE;
}

static json_object* new_value(json_object* other, unsigned random)
{
    static constexpr int NUMBERS[] = {0,  1,   2,   3,   4,    5,     15,      16,      127,
                                      -1, 128, 255, 256, 1024, 65535, INT_MAX, INT_MIN, 32473};
    static constexpr char TEXT[] = "1-16, 20-24, 70000-5,1-1, 2-2, 3-3, 4-4, 5-5, 6-6, 7-7, 8-8, "
                                   "9-9, 10-10, 11-11, 12-12, 13-13, 14-14, 15-15";
    json_object* copy = nullptr;
    switch (random % 4) {
    case 0:
        return json_object_new_int(NUMBERS[random / 4 % std::size(NUMBERS)]);
    case 1:
        return json_object_new_string_len(TEXT, static_cast<int>(random / 4 % sizeof(TEXT)));
    case 2:
        return json_object_new_boolean(1);
    default:
        json_object_deep_copy(other, &copy, nullptr);
        return copy;
    }
}

/* Takes a value away, puts another one in its place, or makes many of it. */
static void change(const place_t& place, json_object* other, unsigned random)
{
    const bool in_object = json_object_is_type(place.parent, json_type_object);
    const bool remove = random % 4 == 0;
    if (in_object && remove) {
        json_object_object_del(place.parent, place.key.c_str());
    } else if (in_object) {
        json_object_object_add(place.parent, place.key.c_str(), new_value(other, random / 8));
    } else if (remove) {
        json_object_array_del_idx(place.parent, place.index, 1);
    } else if (random % 4 == 1) {
        json_object_array_put_idx(place.parent, place.index, new_value(other, random / 8));
    } else {
        const bool many = json_object_is_type(place.value, json_type_int);
        const unsigned most = many ? TPG_OID_MAX + 2 : JSONMIB_INDEX_MAX + 3;
        for (unsigned copies = random / 8 % most + 1; copies > 0; copies--) {
            json_object_array_add(place.parent, new_value(place.value, 3));
        }
    }
}

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const tpg_json_t root(seed % 4 == 0 || size == 0 ? nullptr : json_tokener_parse(text.c_str()));
    unsigned random = seed / 4;
    for (unsigned changes = random % 3 + 1; changes > 0; changes--) {
        std::vector<place_t> places;
        json_c_visit(root.get(), 0, list_place, &places);
        random = random * 1103515245U + 12345U;
        if (!places.empty()) {
            change(places[(random >> 8U) % places.size()],
                   places[(random >> 16U) % places.size()].value, random >> 4U);
        }
    }
    const std::string changed = json_object_to_json_string(root.get());
    if (root == nullptr || changed.size() + 1 > max_size) {
        return LLVMFuzzerMutate(data, size, max_size);
    }
    const uint8_t flags = data[size - 1];
    changed.copy(reinterpret_cast<char*>(data), changed.size());
    data[changed.size()] = flags;
    return changed.size() + 1;
}
