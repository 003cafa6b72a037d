/* The module written out. */

#include "author_mib.h"

#include <ctime>

struct writer_t {
    const mib_t& mib;
    std::string body;
    std::set<std::string> smi, conf; /* what is imported */
};

static void add(writer_t* out, const std::string& line)
{
    out->body += line + "\n";
}

/* A quoted text, broken at blanks. */
static std::string quoted(const std::string& text)
{
    constexpr size_t WIDTH = 66;
    constexpr const char* INDENT = "        ";
    std::string out = std::string(INDENT) + "\"";
    size_t column = 0;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(' ', begin), text.size());
        const size_t length = end - begin;
        if (column > 0 && column + length > WIDTH) {
            out += std::string("\n") + INDENT + " ";
            column = 0;
        } else if (column > 0) {
            out += " ";
        }
        out += text.substr(begin, length);
        column += length + 1;
        begin = end + 1;
    }
    return out + "\"";
}

/* "a, b, c" between braces, one a line when they are many. */
static std::string list(const std::vector<std::string>& names)
{
    constexpr size_t FEW = 3;
    const std::string comma = names.size() > FEW ? ",\n        " : ", ";
    std::string out = names.size() > FEW ? "{\n        " : "{ ";
    for (size_t i = 0; i < names.size(); i++) {
        out += (i == 0 ? "" : comma) + names[i];
    }
    return out + " }";
}

static std::string place(writer_t* out, const mib_oid_t& at)
{
    return mib_place_text(out->mib.places, at, &out->smi);
}

static void add_status(writer_t* out, const std::string& description)
{
    add(out, "    STATUS      current");
    add(out, "    DESCRIPTION\n" + quoted(description));
}

/* The base type of a syntax, where it has to be imported. */
static void import_type(writer_t* out, const std::string& syntax)
{
    for (const char* type : {"Integer32", "Unsigned32"}) {
        if (syntax.starts_with(type)) {
            out->smi.insert(type);
        }
    }
}

static void add_object_type(writer_t* out, const std::string& name, const std::string& syntax,
                            const std::string& access, const std::string& description)
{
    out->smi.insert("OBJECT-TYPE");
    import_type(out, syntax);
    add(out, name + " OBJECT-TYPE");
    add(out, "    SYNTAX      " + syntax);
    add(out, "    MAX-ACCESS  " + access);
    add_status(out, description);
}

static void add_object(writer_t* out, const mib_object_t& object)
{
    add_object_type(out, object.name, object.syntax, object.access, object.description);
    add(out, "    ::= " + place(out, object.oid) + "\n");
}

/* The type of a column in its row's sequence, which is named without its limits. */
static std::string sequence_type(const std::string& syntax)
{
    return syntax.starts_with("OCTET STRING") ? "OCTET STRING" : syntax.substr(0, syntax.find(' '));
}

static void add_table(writer_t* out, const mib_table_t& table)
{
    const std::string type = mib_capital(table.row);
    add_object_type(out, table.name, "SEQUENCE OF " + type, MIB_NOT_ACCESSIBLE, table.description);
    add(out, "    ::= " + place(out, table.oid) + "\n");
    add_object_type(out, table.row, type, MIB_NOT_ACCESSIBLE, "A row of " + table.name + ".");
    add(out, "    INDEX       " + list(table.index));
    add(out, "    ::= { " + table.name + " 1 }\n");
    add(out, type + " ::= SEQUENCE {");
    for (const mib_object_t& column : table.columns) {
        add(out, "    " + column.name + " " + sequence_type(column.syntax) +
                     (&column == &table.columns.back() ? " }\n" : ","));
    }
    for (const mib_object_t& column : table.columns) {
        add_object(out, column);
    }
}

static void add_nodes(writer_t* out)
{
    for (const auto& [at, node] : out->mib.places) {
        if (node.kind == mib_kind::node && !node.standard && at != out->mib.identity &&
            at != out->mib.conformance) {
            add(out, node.name + " OBJECT IDENTIFIER ::= " + place(out, at) + "\n");
        }
    }
}

static void add_traps(writer_t* out)
{
    const mib_t& mib = out->mib;
    for (const mib_object_t& scalar : mib.scalars) {
        add_object(out, scalar);
    }
    for (const auto& [at, node] : mib.places) {
        const auto trap = mib.traps.find(at.back());
        if (trap == mib.traps.end() || trap->second.name != node.name) {
            continue;
        }
        out->smi.insert("NOTIFICATION-TYPE");
        add(out, node.name + " NOTIFICATION-TYPE");
        if (!trap->second.objects.empty()) {
            add(out, "    OBJECTS     " + list(trap->second.objects));
        }
        add_status(out, trap->second.description);
        add(out, "    ::= " + place(out, at) + "\n");
    }
}

/* ---- conformance ---- */

struct group_t {
    std::string name, description;
    std::vector<std::string> members;
    bool of_traps;
};

static std::vector<group_t> groups_of(const mib_t& mib)
{
    const std::string& node = mib.places.at(mib.conformance).name;
    const std::string base = node.substr(0, node.rfind("Conformance"));
    std::vector<group_t> groups;
    for (const mib_table_t& table : mib.tables) {
        group_t group = {table.name.substr(0, table.name.size() - 5) + "Group",
                         "What can be read of " + table.name + ".",
                         {},
                         false};
        for (const mib_object_t& column : table.columns) {
            if (column.access != MIB_NOT_ACCESSIBLE) {
                group.members.push_back(column.name);
            }
        }
        groups.push_back(group);
    }
    group_t objects = {base + "TrapObjectsGroup", "What comes with traps alone.", {}, false};
    for (const mib_object_t& scalar : mib.scalars) {
        objects.members.push_back(scalar.name);
    }
    group_t traps = {base + "TrapsGroup", "The traps of the cards.", {}, true};
    for (const auto& [number, trap] : mib.traps) {
        traps.members.push_back(trap.name);
    }
    groups.push_back(objects);
    groups.push_back(traps);
    std::erase_if(groups, [](const group_t& group) { return group.members.empty(); });
    return groups;
}

static void add_conformance(writer_t* out)
{
    const mib_place_t& node = out->mib.places.at(out->mib.conformance);
    const std::string base = node.name.substr(0, node.name.rfind("Conformance"));
    const std::vector<group_t> groups = groups_of(out->mib);
    std::vector<std::string> names;
    for (const group_t& group : groups) {
        names.push_back(group.name);
    }
    if (groups.empty()) {
        return;
    }
    out->conf.insert("MODULE-COMPLIANCE");
    add(out, node.name + " OBJECT IDENTIFIER ::= " + place(out, out->mib.conformance) + "\n");
    add(out, base + "Compliance MODULE-COMPLIANCE");
    add_status(out, "What an agent serves while a card of the family is plugged.");
    add(out, "    MODULE\n    MANDATORY-GROUPS " + list(names));
    add(out, "    ::= { " + node.name + " 1 }\n");
    uint32_t number = 1;
    for (const group_t& group : groups) {
        out->conf.insert(group.of_traps ? "NOTIFICATION-GROUP" : "OBJECT-GROUP");
        add(out, group.name + (group.of_traps ? " NOTIFICATION-GROUP" : " OBJECT-GROUP"));
        add(out,
            (group.of_traps ? "    NOTIFICATIONS " : "    OBJECTS     ") + list(group.members));
        add_status(out, group.description);
        add(out, "    ::= { " + node.name + " " + std::to_string(++number) + " }\n");
    }
}

/* ---- the head ---- */

static std::string text_or(const std::string& text, const char* otherwise)
{
    return quoted(text.empty() ? otherwise : mib_quotable(text));
}

static std::string date_text(time_t time)
{
    char text[32];
    tm date = {};
    gmtime_r(&time, &date);
    strftime(text, sizeof(text), "\"%Y%m%d%H%MZ\"", &date);
    return text;
}

static std::string identity(const mib_source_t& source, writer_t* out, time_t time)
{
    const mib_t& mib = out->mib;
    const std::string date = date_text(time);
    std::string about = source.description.empty() ? "Cards of one family."
                                                   : mib_quotable(source.description) + ".";
    about += " Made from the cards' document by " + std::string(AUTHOR_PROGRAM) + ".";
    for (const std::string& note : mib.notes) {
        about += " " + note;
    }
    out->smi.insert("MODULE-IDENTITY");
    return mib.places.at(mib.identity).name + " MODULE-IDENTITY\n    LAST-UPDATED " + date +
           "\n    ORGANIZATION\n" + text_or(source.organization, "The cards' maker.") +
           "\n    CONTACT-INFO\n" + text_or(source.contact, "The cards' maker.") +
           "\n    DESCRIPTION\n" + quoted(about) + "\n    REVISION    " + date +
           "\n    DESCRIPTION\n" + quoted("As the document is.") +
           "\n    ::= " + place(out, mib.identity) + "\n\n";
}

static std::string import_text(const std::set<std::string>& names, const char* module)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "    " : ", ") + name;
    }
    return names.empty() ? "" : text + "\n        FROM " + module + "\n";
}

std::string mib_text(const mib_source_t& source, const mib_t& mib, time_t time)
{
    writer_t out = {mib, "", {}, {}};
    add_nodes(&out);
    for (const mib_table_t& table : mib.tables) {
        add_table(&out, table);
    }
    add_traps(&out);
    add_conformance(&out);
    const std::string head = identity(source, &out, time);
    std::string imports = import_text(out.smi, "SNMPv2-SMI") + import_text(out.conf, "SNMPv2-CONF");
    imports.insert(imports.size() - 1, ";");
    return mib.module + " DEFINITIONS ::= BEGIN\n\nIMPORTS\n" + imports + "\n" + head + out.body +
           "END\n";
}
