/* The traps that a document can send, by number, and the objects that come with them. */

#include "author_mib.h"

#include <algorithm>

/* Above this a table's rows, or its numbers, are not named one by one. */
constexpr uint64_t ROWS_NAMED = 1024;
constexpr uint64_t NUMBERS_NAMED = 2048;
/* Ranges of bindings with more numbers tell nothing of what is sent. */
constexpr int BINDING_NUMBERS = 256;
/* A fault in a row behind this position sends nothing. */
constexpr uint64_t LAST_POSITION = 4099;

/* Rows as the card counts them in one index, from 0. */
struct index_rows_t {
    uint32_t first, last, step;
};

/* What the numbers of a fault table are made of. */
struct numbers_t {
    const mib_table_t* table;
    std::string base; /* of their names */
    index_rows_t index[2];
    bool has_two;
    uint32_t high2; /* of the second index */
    uint64_t rows;
    uint32_t offsets; /* that the card can add without meeting another row's number */
};

static index_rows_t index_rows(const jsonmib_index_info_t& index, uint32_t step, uint32_t most)
{
    const uint32_t first = index.range[0] > 0 ? index.range[0] - 1 : 0;
    const uint32_t last = index.range[1] > 0 ? index.range[1] - 1 : 0;
    return {std::min(first, most), std::min(std::max(first, last), most), step};
}

/* False for a table that sends no traps. */
static bool numbers_of(const mib_table_t& table, numbers_t* numbers)
{
    constexpr uint32_t LARGEST_OF_TWO = 255;
    const jsonmib_table_info_t& record = *table.source->record;
    const jsonmib_table_trap_info_t& trap = record.trap_info;
    numbers->has_two = record.index_total == 2;
    if ((record.flags & JSONMIB_TABLE_FAULT) == 0 || record.index_total < 1 ||
        record.index_total > 2) {
        return false;
    }
    const uint32_t most = numbers->has_two ? LARGEST_OF_TWO : uint32_t{LAST_POSITION};
    numbers->table = &table;
    numbers->base = table.name.substr(0, table.name.size() - 5);
    numbers->high2 = record.index_info[1].range[1];
    numbers->index[0] = index_rows(record.index_info[0], trap.index_ofs_1, most);
    numbers->index[1] = numbers->has_two ? index_rows(record.index_info[1], trap.index_ofs_2, most)
                                         : index_rows_t{0, 0, 0};
    numbers->rows = 1;
    numbers->offsets = 0;
    for (const index_rows_t& index : numbers->index) {
        numbers->rows *= index.last - index.first + 1;
        const uint32_t distance = index.step > INT32_MAX ? 0 - index.step : index.step;
        if (distance != 0 && (numbers->offsets == 0 || distance < numbers->offsets)) {
            numbers->offsets = distance;
        }
    }
    numbers->offsets = std::max(numbers->offsets, 1U);
    return true;
}

/* ---- what comes with a trap ---- */

struct bindings_t {
    const tpg_jsonmib_register_info_t* card;
    std::string slot;               /* object names; empty: there is none */
    std::vector<std::string> texts; /* by binding */
};

static bool is_in(const jsonmib_trap_bindings_info_t& binding, uint32_t number)
{
    return std::any_of(binding.specific_list, binding.specific_list + binding.specific_list_len,
                       [number](const specific_range_t& range) {
                           return range.low <= number && number <= range.high;
                       });
}

/* The column at this OID, which traps can then show; empty when there is none. */
static std::string column_at(const mib_oid_t& oid, mib_t* mib)
{
    for (mib_table_t& table : mib->tables) {
        for (mib_object_t& column : table.columns) {
            if (column.oid == oid) {
                column.access =
                    column.access == MIB_NOT_ACCESSIBLE ? MIB_FOR_NOTIFY : column.access;
                return column.name;
            }
        }
    }
    for (const mib_object_t& scalar : mib->scalars) {
        if (scalar.oid == oid) {
            return scalar.name;
        }
    }
    return "";
}

/* The name of the object that comes with traps, an existing one or a new one; empty: none. */
static std::string trap_object(const std::string& what, mib_object_t object, mib_t* mib)
{
    std::string name = column_at(object.oid, mib);
    if (!name.empty() || object.oid.empty()) {
        return name;
    }
    const char* fault = mib_place_fault(mib->places, object.oid);
    if (fault == nullptr && mib_place_holds(mib->places, object.oid)) {
        fault = "other objects stand below its OID";
    }
    if (fault != nullptr) {
        mib_leave_out(mib, what, fault);
        return "";
    }
    object.access = MIB_FOR_NOTIFY;
    object.name = name = mib_name_take(&mib->names, object.name);
    mib->places[object.oid] = {name, mib_kind::object, false};
    mib->scalars.push_back(std::move(object));
    return name;
}

static bindings_t trap_objects(const tpg_jsonmib_register_info_t* card, mib_t* mib)
{
    bindings_t bindings = {card, "", {}};
    bindings.slot =
        trap_object("the slot of traps",
                    {mib->prefix + "Slot", "Integer32 (1..15)", "",
                     "The slot of the card that sends the trap; its instance is that number, too.",
                     mib_oid(card->instslot_oid, card->instslot_oid_len)},
                    mib);
    for (uint32_t i = 0; i < card->trap_bindings_len; i++) {
        const jsonmib_trap_bindings_info_t& binding = card->trap_bindings_info[i];
        const std::string number = std::to_string(i + 1);
        bindings.texts.push_back(trap_object(
            "the trap binding " + number,
            {mib->prefix + "Text" + number, "OCTET STRING (SIZE (0..255))", "",
             "What the card has to say of the fault. Its instance is a number that the card gives, "
             "often the row's, and the slot.",
             mib_oid(binding.oid, binding.oid_len)},
            mib));
    }
    return bindings;
}

static std::vector<std::string> objects_of(const bindings_t& bindings, uint32_t number)
{
    std::vector<std::string> objects;
    const auto add = [&](const std::string& name) {
        if (!name.empty() && std::ranges::find(objects, name) == objects.end()) {
            objects.push_back(name);
        }
    };
    add(bindings.slot);
    for (uint32_t i = 0; i < bindings.card->trap_bindings_len; i++) {
        if (is_in(bindings.card->trap_bindings_info[i], number)) {
            add(bindings.texts[i]);
        }
    }
    return objects;
}

/* ---- numbers and their names ---- */

/* A number that more than one row has is named after the first; its description tells of two. */
static void add_trap(const bindings_t& bindings, uint32_t number, const std::string& name,
                     const std::string& description, mib_t* mib)
{
    const auto trap = mib->traps.find(number);
    if (trap == mib->traps.end()) {
        mib->traps[number] = {mib_name_take(&mib->names, name), description,
                              objects_of(bindings, number)};
    } else if (!trap->second.description.ends_with("too.")) {
        trap->second.description += " " + description + " And others, too.";
    }
}

static std::string row_text(const numbers_t& numbers, uint32_t i1, uint32_t i2, const char* between)
{
    return std::to_string(i1 + 1) +
           (numbers.has_two ? between + std::to_string(i2 + 1) : std::string());
}

/* The names of one row's numbers, or of the table's offsets when rows are not named. */
static void add_row(const numbers_t& numbers, const bindings_t& bindings, uint32_t i1, uint32_t i2,
                    bool is_named, mib_t* mib)
{
    const jsonmib_table_trap_info_t& trap = numbers.table->source->record->trap_info;
    const uint64_t named = is_named ? NUMBERS_NAMED / numbers.rows : NUMBERS_NAMED;
    const auto offsets = static_cast<uint32_t>(std::min<uint64_t>(numbers.offsets, named));
    const uint32_t number = trap.specific_start + i1 * trap.index_ofs_1 + i2 * trap.index_ofs_2;
    for (uint32_t offset = 0; offset < offsets; offset++) {
        const std::string plus = std::to_string(offset);
        const std::string which = offset == 0 ? "" : "Plus" + plus;
        const std::string name =
            numbers.base +
            (is_named ? "Row" + row_text(numbers, i1, i2, "x") + which : "Offset" + plus);
        add_trap(bindings, number + offset, name,
                 "Fault in row " + row_text(numbers, i1, i2, ".") + " of " + numbers.table->name +
                     ", with the card's offset " + plus + ".",
                 mib);
    }
}

static void note_offsets(const numbers_t& numbers, bool is_named, mib_t* mib)
{
    const std::string steps =
        "each of the first index adds " + std::to_string(numbers.index[0].step) +
        (numbers.has_two ? ", of the second " + std::to_string(numbers.index[1].step) : "");
    if (!is_named) {
        mib->notes.push_back("The traps of " + numbers.table->name +
                             " have names for its first "
                             "row alone, one for each offset: it has " +
                             std::to_string(numbers.rows) + " rows; " + steps + ".");
    } else if (numbers.offsets * numbers.rows > NUMBERS_NAMED) {
        mib->notes.push_back("The traps of " + numbers.table->name + " have names for the first " +
                             std::to_string(NUMBERS_NAMED / numbers.rows) + " of " +
                             std::to_string(numbers.offsets) + " offsets alone; " + steps + ".");
    }
}

static void add_table_traps(const numbers_t& numbers, const bindings_t& bindings, mib_t* mib)
{
    const bool is_named = numbers.rows <= ROWS_NAMED && mib->traps.size() < 8 * NUMBERS_NAMED;
    const auto& [first, second] = numbers.index;
    note_offsets(numbers, is_named, mib);
    if (!is_named) {
        add_row(numbers, bindings, first.first, second.first, false, mib);
        return;
    }
    for (uint32_t i1 = first.first; i1 <= first.last; i1++) {
        for (uint32_t i2 = second.first; i2 <= second.last; i2++) {
            const uint32_t position =
                (numbers.has_two ? i1 * numbers.high2 + i2 : i1) & uint32_t{UINT16_MAX};
            if (position <= LAST_POSITION) {
                add_row(numbers, bindings, i1, i2, true, mib);
            }
        }
    }
}

/* What bindings are declared for is sent, with some offset, though no row begins there. */
static void add_binding_traps(const bindings_t& bindings, uint32_t first, mib_t* mib)
{
    for (uint32_t i = 0; i < bindings.card->trap_bindings_len; i++) {
        const jsonmib_trap_bindings_info_t& binding = bindings.card->trap_bindings_info[i];
        for (uint32_t k = 0; k < binding.specific_list_len; k++) {
            const specific_range_t& range = binding.specific_list[k];
            const bool is_list =
                range.low <= range.high && range.high - range.low < BINDING_NUMBERS;
            for (uint32_t number = std::max<uint32_t>(range.low, first);
                 is_list && number <= range.high; number++) {
                if (!mib->traps.contains(number)) {
                    add_trap(bindings, number, mib->prefix + "Trap" + std::to_string(number),
                             "A fault whose number has an offset of the card's.", mib);
                }
            }
        }
    }
}

/* ---- the document's ---- */

/* Why the card's traps can have no names; null when they can. */
static const char* traps_fault(const mib_places_t& places, const mib_oid_t& enterprise)
{
    constexpr uint32_t ANY_NUMBER = 1;
    if (enterprise.empty()) {
        return "the document has no 'enterprise_oid'";
    }
    const auto place = places.find(enterprise);
    if (place != places.end() && place->second.kind != mib_kind::node) {
        return "their enterprise is a table or part of one";
    }
    const mib_oid_t traps = mib_below(enterprise, 0);
    return places.contains(traps) ? "their OID has a name already"
                                  : mib_place_fault(places, mib_below(traps, ANY_NUMBER));
}

/* Numbers whose OIDs are no trap's in SMI go, with one line for all that have the same reason. */
static void drop_unnameable(const mib_oid_t& traps, mib_t* mib)
{
    std::map<std::string, std::vector<uint32_t>> dropped;
    for (const auto& [number, trap] : mib->traps) {
        const mib_oid_t place = mib_below(traps, number);
        const char* fault = number > INT32_MAX ? "such a number is above 2147483647"
                                               : mib_place_fault(mib->places, place);
        if (fault == nullptr) {
            mib->places[place] = {trap.name, mib_kind::object, false};
        } else {
            dropped[fault].push_back(number);
        }
    }
    for (const auto& [fault, numbers] : dropped) {
        const std::string more = std::to_string(numbers.size() - 1);
        mib_leave_out(mib,
                      "the trap " + std::to_string(numbers[0]) +
                          (numbers.size() > 1 ? " and " + more + " more" : ""),
                      fault);
        for (const uint32_t number : numbers) {
            mib->traps.erase(number);
        }
    }
}

void mib_build_traps(const mib_source_t& source, mib_t* mib)
{
    const tpg_jsonmib_register_info_t* card = source.card;
    const mib_oid_t enterprise = mib_oid(card->enterprise_oid, card->enterprise_oid_len);
    std::vector<numbers_t> all;
    uint32_t first = UINT32_MAX;
    for (const mib_table_t& table : mib->tables) {
        numbers_t numbers = {};
        if (numbers_of(table, &numbers)) {
            all.push_back(numbers);
            first = std::min(first, table.source->record->trap_info.specific_start);
        }
    }
    if (all.empty()) {
        return;
    }
    if (const char* fault = traps_fault(mib->places, enterprise)) {
        mib_leave_out(mib, "the names of traps", fault);
        return;
    }
    const mib_oid_t traps = mib_below(enterprise, 0);
    mib->places[traps] = {mib_name_take(&mib->names, mib->prefix + "Traps"), mib_kind::node, false};
    const bindings_t bindings = trap_objects(card, mib);
    for (const numbers_t& numbers : all) {
        add_table_traps(numbers, bindings, mib);
    }
    add_binding_traps(bindings, first, mib);
    drop_unnameable(traps, mib);
}
