#include "chassis_scenario.h"

#include "chassis_document.h"
#include "chassis_text.h"
#include "uevgend_msg_i.h"

#include <cstddef>
#include <span>

/* What is being read. */
struct scenario_t {
    chassis_t* chassis;
    chassis_slot_t* slot; /* of the card or board being read */
    std::string dir;      /* in front of relative document paths, with its slash */
    std::string where;    /* the part of the file, for messages */
    std::string* error;
};

/* A member of a scenario object: it goes to read, or into a text field, or nowhere. */
struct scenario_key_t {
    std::string_view name;
    json_type type; /* json_type_null: read looks at it itself */
    bool required;
    int (*read)(scenario_t* scenario, json_object* value);
    size_t field_ofs; /* in the card's identity */
    size_t field_size;
};

static int scenario_fail(scenario_t* scenario, const std::string& reason);
static int scenario_object(scenario_t* scenario, json_object* obj,
                           std::span<const scenario_key_t> keys);
static int scenario_cards(scenario_t* scenario, json_object* cards);
static int scenario_card(scenario_t* scenario, json_object* card);
static int scenario_board(scenario_t* scenario, json_object* board);
static void scenario_slot_init(chassis_t* chassis, unsigned slot_no);
static int read_text(scenario_t* scenario, const scenario_key_t& key, json_object* value);
static int read_version(scenario_t* scenario, json_object* value);
static int read_plugged(scenario_t* scenario, json_object* value);
static int read_board_type(scenario_t* scenario, json_object* value);
static int read_documents(scenario_t* scenario, json_object* value);
static int read_document(scenario_t* scenario, json_object* value);
static int read_values(scenario_t* scenario, json_object* value);
static int read_value_member(scenario_t* scenario, std::string_view key, json_object* value);
static int read_value(scenario_t* scenario, uint32_t var, const int64_t* index, json_object* value);

#define IDENTITY_FIELD(member)                                                                     \
    nullptr, offsetof(tpg_libmib_update_t, member), sizeof(tpg_libmib_update_t::member)

constexpr scenario_key_t scenario_keys[] = {
    {"description", json_type_string, false, nullptr, 0, 0},
    {"cards", json_type_array, false, scenario_cards, 0, 0},
    {"board", json_type_object, false, scenario_board, 0, 0},
};

constexpr scenario_key_t card_keys[] = {
    {"description", json_type_string, false, nullptr, 0, 0},
    {"slot", json_type_int, true, nullptr, 0, 0},
    {"product", json_type_string, true, IDENTITY_FIELD(prod_string)},
    {"family", json_type_string, true, IDENTITY_FIELD(prod_family)},
    {"version", json_type_string, true, read_version, 0, 0},
    {"serial", json_type_string, false, IDENTITY_FIELD(board_sn)},
    {"library", json_type_string, false, IDENTITY_FIELD(libmib_path)},
    {"jsonmib", json_type_null, false, read_documents, 0, 0},
    {"values", json_type_object, false, read_values, 0, 0},
    {"plugged", json_type_boolean, false, read_plugged, 0, 0},
};

constexpr scenario_key_t board_keys[] = {
    {"description", json_type_string, false, nullptr, 0, 0},
    {"type", json_type_string, false, read_board_type, 0, 0},
    {"jsonmib", json_type_null, false, read_documents, 0, 0},
    {"values", json_type_object, false, read_values, 0, 0},
};

int chassis_scenario_load(chassis_t* chassis, const std::string& path, std::string* error)
{
    const chassis_json_t root = chassis_json_load(path, JSON_TOKENER_STRICT, error);
    if (!root) {
        return -1;
    }
    for (unsigned slot_no = 1; slot_no <= TPG_SLOT_MAX; slot_no++) {
        scenario_slot_init(chassis, slot_no);
    }
    scenario_t scenario = {};
    scenario.chassis = chassis;
    scenario.dir = path.substr(0, path.rfind('/') + 1);
    scenario.error = error;
    return scenario_object(&scenario, root.get(), scenario_keys);
}

static int scenario_fail(scenario_t* scenario, const std::string& reason)
{
    *scenario->error = scenario->where + reason;
    return -1;
}

/* Reads the members of obj in their order; unknown ones are mistakes. */
static int scenario_object(scenario_t* scenario, json_object* obj,
                           std::span<const scenario_key_t> keys)
{
    for (const scenario_key_t& key : keys) {
        if (key.required && json_object_object_get_ex(obj, key.name.data(), nullptr) == 0) {
            return scenario_fail(scenario, chassis_text_quote(key.name) + " is missing");
        }
    }
    json_object_object_foreach(obj, name, value)
    {
        const scenario_key_t* key = nullptr;
        for (const scenario_key_t& known : keys) {
            key = known.name == name ? &known : key;
        }
        const std::string quoted = chassis_text_quote(name);
        if (key == nullptr) {
            return scenario_fail(scenario, quoted + " is not known here");
        }
        if (key->type != json_type_null && !json_object_is_type(value, key->type)) {
            return scenario_fail(scenario,
                                 quoted + " must be of type " + json_type_to_name(key->type));
        }
        if ((key->read != nullptr && key->read(scenario, value) != 0) ||
            (key->field_size != 0 && read_text(scenario, *key, value) != 0)) {
            return -1;
        }
    }
    return 0;
}

static int scenario_cards(scenario_t* scenario, json_object* cards)
{
    for (size_t i = 0; i < json_object_array_length(cards); i++) {
        scenario->where = "card " + std::to_string(i + 1) + ": ";
        if (scenario_card(scenario, json_object_array_get_idx(cards, i)) != 0) {
            return -1;
        }
    }
    scenario->where.clear();
    return 0;
}

static int scenario_card(scenario_t* scenario, json_object* card)
{
    json_object* slot = nullptr;
    if (!json_object_is_type(card, json_type_object)) {
        return scenario_fail(scenario, "must be of type object");
    }
    if (!json_object_object_get_ex(card, "slot", &slot) ||
        !json_object_is_type(slot, json_type_int) || json_object_get_int64(slot) < 1 ||
        json_object_get_int64(slot) > TPG_SLOT_MAX) {
        return scenario_fail(scenario, "\"slot\" must be a number from 1 to 15");
    }
    const auto slot_no = static_cast<unsigned>(json_object_get_int64(slot));
    scenario->slot = &scenario->chassis->slots[slot_no - 1];
    if (scenario->slot->card) {
        return scenario_fail(scenario, "slot " + std::to_string(slot_no) + " already has a card");
    }
    scenario->slot->card = true;
    scenario->slot->plugged = true;
    return scenario_object(scenario, card, card_keys);
}

static int scenario_board(scenario_t* scenario, json_object* board)
{
    scenario->where = "board: ";
    scenario->slot = &scenario->chassis->slots[CHASSIS_BOARD_SLOT - 1];
    scenario->slot->board = true;
    scenario->slot->vars.board = true;
    const int ret = scenario_object(scenario, board, board_keys);
    if (ret == 0) {
        scenario->where.clear();
    }
    return ret;
}

static void scenario_slot_init(chassis_t* chassis, unsigned slot_no)
{
    chassis_slot_t* slot = &chassis->slots[slot_no - 1];
    slot->chassis = chassis;
    slot->slot_no = slot_no;
    slot->vars.slot_no = slot_no;
    slot->identity.slot_no = static_cast<uint8_t>(slot_no);
    slot->daemon.path = uevgend_svr_address(slot_no).sun_path;
}

/* Copies a text into the key's field of the card's identity, which keeps a terminating zero. */
static int read_text(scenario_t* scenario, const scenario_key_t& key, json_object* value)
{
    const std::string_view text = json_object_get_string(value);
    if (text.size() >= key.field_size) {
        return scenario_fail(scenario, chassis_text_quote(key.name) + " is longer than " +
                                           std::to_string(key.field_size - 1) + " characters");
    }
    text.copy(reinterpret_cast<char*>(&scenario->slot->identity) + key.field_ofs, text.size());
    return 0;
}

static int read_version(scenario_t* scenario, json_object* value)
{
    const std::string_view text = json_object_get_string(value);
    const size_t dot1 = text.find('.');
    const size_t dot2 = dot1 == std::string_view::npos ? dot1 : text.find('.', dot1 + 1);
    int64_t major = 0;
    int64_t minor = 0;
    int64_t build = 0;
    if (dot2 == std::string_view::npos ||
        chassis_parse_number(text.substr(0, dot1), 0, UINT8_MAX, &major) != 0 ||
        chassis_parse_number(text.substr(dot1 + 1, dot2 - dot1 - 1), 0, UINT8_MAX, &minor) != 0 ||
        chassis_parse_number(text.substr(dot2 + 1), 0, UINT32_MAX, &build) != 0) {
        return scenario_fail(scenario, "\"version\" must be MAJOR.MINOR.BUILD, such as 1.2.566");
    }
    scenario->slot->identity.major_rev = static_cast<uint8_t>(major);
    scenario->slot->identity.minor_rev = static_cast<uint8_t>(minor);
    scenario->slot->identity.build_number = static_cast<uint32_t>(build);
    return 0;
}

static int read_plugged(scenario_t* scenario, json_object* value)
{
    scenario->slot->plugged = json_object_get_boolean(value) != 0;
    return 0;
}

static int read_board_type(scenario_t* scenario, json_object* value)
{
    scenario->chassis->board_type = json_object_get_string(value);
    if (scenario->chassis->board_type != "3100KX" && scenario->chassis->board_type != "3101KX") {
        return scenario_fail(scenario, "\"type\" must be 3100KX or 3101KX");
    }
    return 0;
}

/* One document path or a list of them. */
static int read_documents(scenario_t* scenario, json_object* value)
{
    if (!json_object_is_type(value, json_type_array)) {
        return read_document(scenario, value);
    }
    for (size_t i = 0; i < json_object_array_length(value); i++) {
        if (read_document(scenario, json_object_array_get_idx(value, i)) != 0) {
            return -1;
        }
    }
    return 0;
}

static int read_document(scenario_t* scenario, json_object* value)
{
    if (!json_object_is_type(value, json_type_string)) {
        return scenario_fail(scenario, "\"jsonmib\" must be a path or a list of paths");
    }
    std::string path = json_object_get_string(value);
    if (!path.starts_with('/')) {
        path.insert(0, scenario->dir);
    }
    std::string error;
    if (chassis_document_load(&scenario->slot->vars, path, &error) != 0) {
        return scenario_fail(scenario, path + ": " + error);
    }
    return 0;
}

/* An object keyed by variable and index. */
static int read_values(scenario_t* scenario, json_object* value)
{
    json_object_object_foreach(value, key, member)
    {
        if (read_value_member(scenario, key, member) != 0) {
            return -1;
        }
    }
    return 0;
}

static int read_value_member(scenario_t* scenario, std::string_view key, json_object* value)
{
    const size_t colon = key.find(':');
    const bool has_index = colon != std::string_view::npos;
    int64_t var = 0;
    int64_t index = 0;
    if (chassis_parse_number(key.substr(0, colon), 0, UINT32_MAX, &var) != 0 ||
        (has_index && chassis_parse_number(key.substr(colon + 1), 0, UINT32_MAX, &index) != 0)) {
        return scenario_fail(scenario, "a key of \"values\" must be VAR or VAR:INDEX, not " +
                                           chassis_text_quote(key));
    }
    return read_value(scenario, static_cast<uint32_t>(var), has_index ? &index : nullptr, value);
}

/* Without an index the value is that of every row. */
static int read_value(scenario_t* scenario, uint32_t var, const int64_t* index, json_object* value)
{
    chassis_vars_t* vars = &scenario->slot->vars;
    chassis_value_t start = {};
    if (json_object_is_type(value, json_type_int) && json_object_get_int64(value) >= INT32_MIN &&
        json_object_get_int64(value) <= INT32_MAX) {
        start = chassis_value_int(json_object_get_int(value));
    } else if (json_object_is_type(value, json_type_string)) {
        start = chassis_value_text({json_object_get_string(value),
                                    static_cast<size_t>(json_object_get_string_len(value))});
    } else {
        return scenario_fail(scenario, "the value of variable " + std::to_string(var) +
                                           " must be a text or a 32-bit number");
    }
    if (index != nullptr) {
        chassis_vars_put(vars, var, static_cast<uint32_t>(*index), std::move(start));
    } else {
        vars->any_row[var] = std::move(start);
    }
    return 0;
}
