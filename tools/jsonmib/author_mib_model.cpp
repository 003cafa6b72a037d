/* Tables, columns and indexes as the agent serves them, and where the module itself stands. */

#include "author_mib.h"

#include "tpg_jsonmib_column.h"

#include <algorithm>

static void add_table(const mib_source_table_t&, size_t, const std::set<mib_oid_t>&, mib_t*);
static void add_column(const mib_source_table_t&, uint32_t, const std::string&, mib_table_t*,
                       mib_t*);
static void add_indexes(const mib_source_table_t&, const std::set<mib_oid_t>&, const std::string&,
                        mib_table_t*, mib_t*);

/* Rows of more indexes, the slot among them, cannot be asked of a card. */
constexpr uint8_t INDEXES_ASKED = JSONMIB_CARD_INDEXES + 1;
/* Only these columns can show an index: the one of the same position. */
constexpr uint32_t INDEX_COLUMNS = 2;
constexpr int32_t STRING_MAX = 255;

void mib_leave_out(mib_t* mib, const std::string& what, const std::string& why)
{
    const std::string note = "eft out: " + what + ", for " + why + ".";
    author_say("l%s", note.c_str());
    mib->notes.push_back("L" + note);
}

/* ---- syntaxes ---- */

static std::string range_text(int64_t low, int64_t high)
{
    const std::string text = std::to_string(low);
    return " (" + (low == high ? text : text + ".." + std::to_string(high)) + ")";
}

static std::string index_syntax(const jsonmib_index_info_t& index)
{
    /* A range that goes backwards has its first value alone. */
    const uint32_t high = std::max(index.range[0], index.range[1]);
    const uint32_t last = index.range[1] < index.range[0] ? index.range[0] : index.range[1];
    return (high > INT32_MAX ? "Unsigned32" : "Integer32") + range_text(index.range[0], last);
}

static bool is_integer(const jsonmib_table_param_info_t& param)
{
    return jsonmib_column_takes_integers(&param);
}

static bool is_fault(const jsonmib_table_info_t& table)
{
    return (table.flags & JSONMIB_TABLE_FAULT) != 0;
}

static const char* access_of(bool writable, const jsonmib_table_param_info_t& param)
{
    return writable && param.access != JSONMIB_ACCESS_RO ? MIB_READ_WRITE : MIB_READ_ONLY;
}

/* The agent's own switch: what is written has to be in the column's range, too. */
static void describe_switch(const jsonmib_table_param_info_t& param, mib_object_t* object)
{
    object->syntax = "INTEGER { off(1), on(2) }";
    object->access =
        access_of(is_integer(param) && param.range[0] <= 2 && param.range[1] >= 1, param);
    object->description = "Whether the faults of this row send traps.";
}

/* The range of a state's column admits nothing that could be written. */
static void describe_state(const jsonmib_table_param_info_t& param, mib_object_t* object)
{
    object->syntax = "INTEGER { absent(1), present(2) }";
    object->access = MIB_READ_ONLY;
    object->description = "The state of a fault: the card's variable " +
                          std::to_string(param.var_id) + ", counted from 1.";
}

static void describe_integer(const jsonmib_table_param_info_t& param, mib_object_t* object)
{
    const bool has_range = param.range[0] <= param.range[1];
    const bool is_bare = param.range[0] == 0 && param.range[1] == 0;
    object->syntax = "Integer32";
    if (has_range && !is_bare) {
        object->syntax += range_text(param.range[0], param.range[1]);
    }
    object->access = access_of(has_range, param);
    object->description = "The card's variable " + std::to_string(param.var_id) + ".";
    if (param.type == JSONMIB_TYPE_INT_SHIFTED) {
        object->description += " An enumeration, counted from 1; the document does not name its "
                               "values.";
    }
}

static void describe_string(const jsonmib_table_param_info_t& param, mib_object_t* object)
{
    const int32_t longest = std::min(param.range[1], STRING_MAX);
    object->syntax = "OCTET STRING";
    if (longest > 0) {
        object->syntax += " (SIZE" + range_text(0, longest) + ")";
    }
    object->access = access_of(param.type == JSONMIB_TYPE_STRING && longest > 0, param);
    object->description = "A text, the card's variable " + std::to_string(param.var_id) + ".";
}

static void describe_index_column(const jsonmib_table_info_t& table, uint32_t number,
                                  mib_object_t* object)
{
    const jsonmib_table_param_info_t& param = table.param_info[number - 1];
    if (number > INDEX_COLUMNS || number > table.index_used) {
        object->syntax = "Integer32";
        object->access = MIB_NOT_ACCESSIBLE;
        object->description = "An index that cannot be read: the row has no such one, or the "
                              "column is not 1 or 2.";
        return;
    }
    const jsonmib_index_info_t& index = table.index_info[table.index_pos[number - 1]];
    object->syntax = index_syntax(index);
    object->access = access_of(is_integer(param) && param.range[0] <= param.range[1], param);
    object->description = (index.flags & JSONMIB_INDEX_SLOT) != 0
                              ? "The slot of the row's card."
                              : "Index " + std::to_string(number) + " of the row.";
}

static void describe_column(const jsonmib_table_info_t& table, uint32_t number,
                            mib_object_t* object)
{
    const jsonmib_table_param_info_t& param = table.param_info[number - 1];
    if (jsonmib_column_is_index(&param)) {
        describe_index_column(table, number, object);
    } else if (param.kind == jsonmib_kind_t::send_trap) {
        describe_switch(param, object);
    } else if (param.kind == jsonmib_kind_t::fault_state) {
        describe_state(param, object);
    } else if (is_integer(param)) {
        describe_integer(param, object);
    } else {
        describe_string(param, object);
    }
}

/* ---- tables ---- */

/* A document's name, where the module's is another one. */
static std::string called(const std::string& document, const std::string& name)
{
    return document.empty() || document == name
               ? ""
               : " In the document: '" + mib_quotable(document) + "'.";
}

/* The name without the word that all tables' names end with. */
static std::string table_base(const mib_source_table_t& source, size_t number)
{
    std::string name = mib_name_of(source.name);
    if (name.ends_with("Table") || name.ends_with("table")) {
        name.resize(name.size() - 5);
    }
    return name.empty() ? "table" + std::to_string(number) : name;
}

/* The OIDs of the document's tables, texts and traps. */
static std::set<mib_oid_t> document_oids(const mib_source_t& source)
{
    const tpg_jsonmib_register_info_t& card = *source.card;
    std::set<mib_oid_t> oids = {mib_oid(card.enterprise_oid, card.enterprise_oid_len)};
    for (const mib_source_table_t& table : source.tables) {
        oids.insert(mib_oid(table.record->oid, table.record->oid_len));
    }
    for (uint32_t i = 0; i < card.trap_bindings_len; i++) {
        const jsonmib_trap_bindings_info_t& binding = card.trap_bindings_info[i];
        oids.insert(mib_oid(binding.oid, binding.oid_len));
    }
    return oids;
}

static void add_table(const mib_source_table_t& source, size_t number,
                      const std::set<mib_oid_t>& theirs, mib_t* mib)
{
    mib_table_t table = {};
    table.source = &source;
    table.oid = mib_oid(source.record->oid, source.record->oid_len);
    const char* fault = mib_place_fault(mib->places, table.oid);
    const mib_oid_t row = mib_below(table.oid, 1);
    if (fault == nullptr && mib_place_holds(mib->places, table.oid) && mib->places.contains(row)) {
        fault = "its rows' OID has a name already";
    }
    if (fault != nullptr) {
        mib_leave_out(mib, "table '" + mib_quotable(source.name) + "'", fault);
        return;
    }
    const std::string base =
        mib_name_take(&mib->names, table_base(source, number), "", {"Table", "Entry", "Group"});
    table.name = base + "Table";
    table.row = base + "Entry";
    table.description = std::string(is_fault(*source.record) ? "Faults" : "Values") +
                        " of the cards of the family, a set of rows for each of their slots." +
                        called(source.name, table.name);
    if (source.record->index_used > INDEXES_ASKED) {
        table.description += " Cards cannot be asked for rows of more than two indexes: every "
                             "request is answered with genErr.";
    }
    mib->places[table.oid] = {table.name, mib_kind::object, false};
    mib->places[row] = {table.row, mib_kind::row, false};
    for (uint32_t i = 1; i <= source.record->param_total; i++) {
        add_column(source, i, base, &table, mib);
    }
    add_indexes(source, theirs, base, &table, mib);
    mib->tables.push_back(std::move(table));
}

static void add_object(mib_object_t object, mib_table_t* table, mib_t* mib)
{
    mib->places[object.oid] = {object.name, mib_kind::object, false};
    table->columns.push_back(std::move(object));
}

static void add_column(const mib_source_table_t& source, uint32_t number, const std::string& base,
                       mib_table_t* table, mib_t* mib)
{
    const std::string& document = source.columns[number - 1];
    const std::string wanted = mib_name_of(document);
    const std::string fallback = base + "Column" + std::to_string(number);
    mib_object_t object;
    object.name = wanted.empty()
                      ? mib_name_take(&mib->names, fallback)
                      : mib_name_take(&mib->names, wanted, mib_name_of(base + mib_capital(wanted)));
    object.oid = mib_below(mib_below(table->oid, 1), number);
    describe_column(*source.record, number, &object);
    if (source.record->index_used > INDEXES_ASKED && object.access == MIB_READ_WRITE) {
        object.access = MIB_READ_ONLY;
    }
    object.description += called(document, object.name);
    add_object(std::move(object), table, mib);
}

/* Indexes that no column shows stand behind the columns, where nothing is served. */
static void add_indexes(const mib_source_table_t& source, const std::set<mib_oid_t>& theirs,
                        const std::string& base, mib_table_t* table, mib_t* mib)
{
    const jsonmib_table_info_t& record = *source.record;
    const mib_oid_t row = mib_below(table->oid, 1);
    uint32_t column = record.param_total;
    for (uint32_t i = 0; i < record.index_used; i++) {
        const jsonmib_index_info_t& index = record.index_info[record.index_pos[i]];
        if (i < INDEX_COLUMNS && i < record.param_total &&
            (record.param_info[i].flags & JSONMIB_PARAM_INDEX) != 0) {
            table->index.push_back(table->columns[i].name);
            continue;
        }
        do {
            column++;
        } while (theirs.contains(mib_below(row, column)));
        const bool is_slot = (index.flags & JSONMIB_INDEX_SLOT) != 0;
        const std::string number = std::to_string(i + 1);
        mib_object_t object;
        object.name = mib_name_take(&mib->names, base + (is_slot ? "Slot" : "Index" + number));
        object.syntax = index_syntax(index);
        object.access = MIB_NOT_ACCESSIBLE;
        object.description =
            is_slot ? "The slot of the row's card." : "Index " + number + " of the row.";
        object.oid = mib_below(row, column);
        table->index.push_back(object.name);
        add_object(std::move(object), table, mib);
    }
}

/* ---- the module's own nodes ---- */

/* Below mgmt only a module of the standards may stand, as one of these nodes' children. */
static bool may_identify(const mib_oid_t& place)
{
    static const mib_oid_t MGMT = {1, 3, 6, 1, 2}, MIB_2 = {1, 3, 6, 1, 2, 1};
    return !mib_is_within(place, MGMT) || mib_above(place) == MIB_2;
}

/* A free node that is not in an object, or empty. */
static mib_oid_t free_identity(const mib_t& mib, const std::vector<mib_oid_t>& candidates)
{
    constexpr uint32_t LAST_ROOT = 2;
    for (const mib_oid_t& place : candidates) {
        if (place.size() < 2 || place[0] > LAST_ROOT || mib.places.contains(place) ||
            place.size() + 2 > TPG_OID_MAX || !may_identify(place)) {
            continue;
        }
        const auto above = mib.places.find(mib_above(place));
        if (above == mib.places.end() || above->second.kind == mib_kind::node) {
            return place;
        }
    }
    return {};
}

/*
 * The module stands where the card's traps do, or right above a table, or in a
 * table's subtree, outside its cells.
 */
static int find_identity(const mib_source_t& source, mib_t* mib)
{
    constexpr uint32_t OUTSIDE_CELLS = 1000;
    constexpr size_t MIB_2_CHILD = 7; /* sub-identifiers */
    std::vector<mib_oid_t> candidates = {
        mib_oid(source.card->enterprise_oid, source.card->enterprise_oid_len)};
    for (const mib_table_t& table : mib->tables) {
        candidates.push_back(mib_above(table.oid));
    }
    for (const mib_table_t& table : mib->tables) {
        candidates.push_back(mib_below(mib_below(table.oid, OUTSIDE_CELLS), 1));
    }
    for (size_t i = 0; i < mib->tables.size(); i++) {
        mib_oid_t standard = mib->tables[i].oid;
        standard.resize(std::min(standard.size(), MIB_2_CHILD));
        candidates.push_back(standard);
    }
    mib->identity = free_identity(*mib, candidates);
    if (mib->identity.empty()) {
        author_say("the document has no OID at which a module could stand");
        return -1;
    }
    mib->places[mib->identity] = {mib_name_take(&mib->names, mib->prefix, "", {"MIB"}) + "MIB",
                                  mib_kind::node, false};
    return 0;
}

/* Below the module's node, where the document names nothing. */
static void find_conformance(const std::set<mib_oid_t>& theirs, mib_t* mib)
{
    uint32_t subid = 1000;
    const auto is_taken = [&](const mib_oid_t& place) {
        const auto next = theirs.lower_bound(place);
        return mib->places.contains(place) || mib_place_holds(mib->places, place) ||
               (next != theirs.end() && mib_is_within(*next, place));
    };
    while (is_taken(mib_below(mib->identity, subid))) {
        subid++;
    }
    mib->conformance = mib_below(mib->identity, subid);
    const std::string base =
        mib_name_take(&mib->names, mib->prefix, "",
                      {"Conformance", "Compliance", "TrapObjectsGroup", "TrapsGroup"});
    mib->places[mib->conformance] = {base + "Conformance", mib_kind::node, false};
}

/* Names for the nodes between those that have one, from the top down: SMI wants each of them. */
static void name_nodes_above(const mib_oid_t& place, mib_t* mib)
{
    mib_oid_t node;
    for (size_t i = 0; i + 1 < place.size(); i++) {
        const auto above = mib->places.find(node);
        node.push_back(place[i]);
        if (mib->places.contains(node)) {
            continue;
        }
        const std::string number = std::to_string(place[i]);
        const std::string first = mib->prefix + "Node";
        const bool goes_on = above != mib->places.end() && above->second.name.starts_with(first);
        const std::string name = goes_on ? above->second.name + "x" + number : first + number;
        mib->places[node] = {mib_name_take(&mib->names, name), mib_kind::node, false};
    }
}

static void name_nodes(mib_t* mib)
{
    std::vector<mib_oid_t> named;
    for (const auto& [place, what] : mib->places) {
        if (!what.standard) {
            named.push_back(place);
        }
    }
    for (const mib_oid_t& place : named) {
        name_nodes_above(place, mib);
    }
}

int mib_build(const mib_source_t& source, mib_t* mib)
{
    mib->names = mib_names_reserved();
    mib->places = mib_places_standard();
    mib->prefix = mib_name_of(mib->module.substr(0, mib->module.rfind('-')));
    /* An outer table comes before those inside it. */
    std::vector<size_t> order(source.tables.size());
    for (size_t i = 0; i < order.size(); i++) {
        order[i] = i;
    }
    std::ranges::stable_sort(order, {}, [&](size_t i) { return source.tables[i].record->oid_len; });
    const std::set<mib_oid_t> theirs = document_oids(source);
    for (const size_t i : order) {
        add_table(source.tables[i], i + 1, theirs, mib);
    }
    std::ranges::sort(mib->tables, {}, &mib_table_t::source);
    if (find_identity(source, mib) != 0) {
        return -1;
    }
    mib_build_traps(source, mib);
    find_conformance(theirs, mib);
    name_nodes(mib);
    return 0;
}
