/* A card's document: parsed, registered, its tables and traps used, promoted, and withdrawn. */

#include "fuzz.h"

#include "tpg_json.h"
#include "tpg_jsonmib.h"
#include "tpg_main_registry.h"
#include "tpg_main_trap.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

static void use_tables(tpg_context_t*);
static void send_traps(tpg_context_t*, const tpg_jsonmib_register_info_t*);
static void list_values(json_object*, std::vector<json_object*>*);
static void change_container(json_object*, json_object*, unsigned);
static json_object* new_value(json_object*, unsigned);

constexpr char FAMILY[] = "family";
constexpr uint32_t SLOTS[] = {2, 7}; /* the master's, and one that references it */

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input_t in = {data, size};
    tpg_context_t* ctx = fuzz_begin(&in);
    fuzz_write_file("/tmp/lib.so.json", fuzz_bytes(&in, in.size));
    jsonmib_check_jsonfile(ctx, "/tmp/lib.so.json");
    tpg_libmib_update_t cards[std::size(SLOTS)];
    for (size_t i = 0; i < std::size(SLOTS); i++) {
        fuzz_clear_switches(FAMILY, SLOTS[i]);
        cards[i] = fuzz_card(SLOTS[i], FAMILY, "/tmp/lib.so");
        tpg_proc_libmib_register(ctx, &cards[i]);
    }
    use_tables(ctx);
    tpg_proc_libmib_unregister(ctx, &cards[0]);
    use_tables(ctx);
    fuzz_end(ctx);
    return 0;
}

static void use_tables(tpg_context_t* ctx)
{
    fuzz_use_tables(ctx);
    for (const uint32_t slot : SLOTS) {
        send_traps(ctx, &ctx->jsonmib_reg_info[slot - 1]);
    }
}

static void send_traps(tpg_context_t* ctx, const tpg_jsonmib_register_info_t* card)
{
    static constexpr uint32_t INDEXES[] = {0, 1, 0x101, 0xfff, 0x1003, 0x10ff03};
    for (uint32_t i = 0; card->fault_json_table != nullptr && i < card->fault_table_reginfo_sum;
         i++) {
        if (card->fault_json_table[i] == nullptr) {
            continue;
        }
        for (const uint32_t index : INDEXES) {
            tpg_msg_trap_notify_t message = {};
            message.trap_notify.var_id = card->fault_json_table[i]->trap_info.fault_present_var_id;
            message.trap_notify.index = index;
            message.trap_notify.slot_no = static_cast<uint8_t>(SLOTS[index % 2]);
            message.trap_notify.data[8] = 16;
            message.trap_notify.data_len = 9 + 16;
            tpg_msg_trap_notify(ctx, &message, nullptr);
        }
    }
}

/* ---- mutation that keeps the text a document ---- */

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const tpg_json_t root(seed % 4 == 0 || size == 0 ? nullptr : json_tokener_parse(text.c_str()));
    if (root == nullptr) {
        return LLVMFuzzerMutate(data, size, max_size);
    }
    std::vector<json_object*> values;
    list_values(root.get(), &values);
    unsigned random = seed / 4;
    for (unsigned changes = random++ % 3 + 1; changes > 0; changes--) {
        random = random * 1103515245U + 12345U;
        json_object* container = values[(random >> 8U) % values.size()];
        json_object* other = values[(random >> 16U) % values.size()];
        change_container(container, other, random >> 4U);
        values.clear();
        list_values(root.get(), &values);
    }
    const std::string changed = json_object_to_json_string(root.get());
    if (changed.size() + 1 > max_size) {
        return LLVMFuzzerMutate(data, size, max_size);
    }
    const uint8_t flags = data[size - 1];
    changed.copy(reinterpret_cast<char*>(data), changed.size());
    data[changed.size()] = flags;
    return changed.size() + 1;
}

/* The value and all below it; null values, which are no objects, are left out. */
static void list_values(json_object* value, std::vector<json_object*>* values)
{
    values->push_back(value);
    if (json_object_is_type(value, json_type_object)) {
        json_object_object_foreach(value, key, member)
        {
            (void)key;
            if (member != nullptr) {
                list_values(member, values);
            }
        }
    }
    for (size_t i = 0;
         json_object_is_type(value, json_type_array) && i < json_object_array_length(value); i++) {
        json_object* element = json_object_array_get_idx(value, i);
        if (element != nullptr) {
            list_values(element, values);
        }
    }
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
        return json_object_new_int(NUMBERS[(random >> 2U) % std::size(NUMBERS)]);
    case 1:
        return json_object_new_string_len(TEXT, static_cast<int>((random >> 2U) % sizeof(TEXT)));
    case 2:
        return json_object_new_boolean(1);
    default:
        json_object_deep_copy(other, &copy, nullptr);
        return copy;
    }
}

/* Changes, adds or takes away one member or element, or sets a number. */
static void change_container(json_object* container, json_object* other, unsigned random)
{
    constexpr unsigned CHOICES = 4;
    constexpr unsigned OID_LENGTHS = TPG_OID_MAX + 2;
    const unsigned choice = random % CHOICES;
    random /= CHOICES;
    if (json_object_is_type(container, json_type_int)) {
        json_object_set_int(container, choice == 0 ? static_cast<int>(random % 64) : INT_MAX);
    } else if (json_object_is_type(container, json_type_array)) {
        const size_t length = json_object_array_length(container);
        const size_t at = length == 0 ? 0 : random % length;
        if (choice == 0 && length > 0) {
            json_object_array_del_idx(container, at, 1);
        } else if (choice == 1) {
            json_object_array_put_idx(container, at, new_value(other, random >> 3U));
        } else {
            json_object* source = length == 0 ? other : json_object_array_get_idx(container, at);
            const bool many = json_object_is_type(source, json_type_int);
            const unsigned most = choice == 3 ? 1 : many ? OID_LENGTHS : JSONMIB_INDEX_MAX + 3;
            for (unsigned copies = random % most + 1; copies > 0; copies--) {
                json_object* copy = nullptr;
                json_object_deep_copy(source, &copy, nullptr);
                json_object_array_add(container, copy);
            }
        }
    } else if (json_object_is_type(container, json_type_object) &&
               json_object_object_length(container) > 0) {
        int skip = static_cast<int>(random) % json_object_object_length(container);
        json_object_object_foreach(container, key, member)
        {
            (void)member;
            if (skip-- > 0) {
                continue;
            }
            const std::string name = key;
            if (choice == 0) {
                json_object_object_del(container, name.c_str());
            } else {
                json_object_object_add(container, name.c_str(), new_value(other, random >> 5U));
            }
            return;
        }
    }
}
