/* Names that SMI and its tools take. */

#include "author_mib.h"

#include <algorithm>
#include <cctype>

/* What SNMPv2-SMI, SNMPv2-TC, SNMPv2-CONF and ASN.1 define, and words that parsers know. */
constexpr const char* RESERVED[] = {"ccitt",
                                    "iso",
                                    "joint-iso-ccitt",
                                    "org",
                                    "dod",
                                    "internet",
                                    "directory",
                                    "mgmt",
                                    "mib-2",
                                    "transmission",
                                    "experimental",
                                    "private",
                                    "enterprises",
                                    "security",
                                    "snmpV2",
                                    "snmpDomains",
                                    "snmpProxys",
                                    "snmpModules",
                                    "zeroDotZero",
                                    "Integer32",
                                    "IpAddress",
                                    "Counter32",
                                    "Gauge32",
                                    "Unsigned32",
                                    "TimeTicks",
                                    "Opaque",
                                    "Counter64",
                                    "ExtUTCTime",
                                    "ObjectName",
                                    "NotificationName",
                                    "ObjectSyntax",
                                    "SimpleSyntax",
                                    "ApplicationSyntax",
                                    "DisplayString",
                                    "PhysAddress",
                                    "MacAddress",
                                    "TruthValue",
                                    "TestAndIncr",
                                    "AutonomousType",
                                    "InstancePointer",
                                    "VariablePointer",
                                    "RowPointer",
                                    "RowStatus",
                                    "TimeStamp",
                                    "TimeInterval",
                                    "DateAndTime",
                                    "StorageType",
                                    "TDomain",
                                    "TAddress",
                                    "Counter",
                                    "Gauge",
                                    "NetworkAddress",
                                    "Integer",
                                    "current",
                                    "deprecated",
                                    "obsolete",
                                    "mandatory",
                                    "optional",
                                    "absent",
                                    "any",
                                    "application",
                                    "begin",
                                    "bit",
                                    "bits",
                                    "boolean",
                                    "by",
                                    "choice",
                                    "component",
                                    "components",
                                    "default",
                                    "defined",
                                    "definitions",
                                    "end",
                                    "enumerated",
                                    "explicit",
                                    "exports",
                                    "external",
                                    "false",
                                    "from",
                                    "identifier",
                                    "implicit",
                                    "imports",
                                    "includes",
                                    "max",
                                    "min",
                                    "minus-infinity",
                                    "null",
                                    "object",
                                    "octet",
                                    "of",
                                    "plus-infinity",
                                    "present",
                                    "real",
                                    "sequence",
                                    "set",
                                    "size",
                                    "string",
                                    "tags",
                                    "true",
                                    "universal",
                                    "with",
                                    "macro",
                                    "type",
                                    "value",
                                    "notation",
                                    "access",
                                    "augments",
                                    "description",
                                    "group",
                                    "groups",
                                    "implied",
                                    "index",
                                    "module",
                                    "notifications",
                                    "objects",
                                    "organization",
                                    "reference",
                                    "revision",
                                    "status",
                                    "syntax",
                                    "units",
                                    "variation",
                                    "uniqueness",
                                    "agent",
                                    "product",
                                    "release",
                                    "supports",
                                    "variables",
                                    "enterprise"};

static std::string lower(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return tolower(c); });
    return text;
}

static bool is_alnum(char c)
{
    return isalnum(static_cast<unsigned char>(c)) != 0 && static_cast<unsigned char>(c) < 0x80;
}

mib_names_t mib_names_reserved()
{
    mib_names_t names;
    for (const char* name : RESERVED) {
        names.insert(lower(name));
    }
    return names;
}

std::string mib_name_of(std::string_view text)
{
    constexpr size_t ENDING_MAX = 20;
    std::string name;
    bool word = false;
    for (const char c : text) {
        const auto letter = static_cast<unsigned char>(c);
        if (is_alnum(c) && name.size() < MIB_NAME_MAX - ENDING_MAX) {
            name += static_cast<char>(word && !name.empty() ? toupper(letter) : letter);
        }
        word = !is_alnum(c);
    }
    if (std::ranges::none_of(name, [](unsigned char c) { return islower(c) != 0; })) {
        name = lower(name);
    }
    if (!name.empty() && isdigit(static_cast<unsigned char>(name[0])) != 0) {
        name.insert(0, "n");
    }
    if (!name.empty()) {
        name[0] = static_cast<char>(tolower(name[0]));
    }
    return name;
}

/* A name that fits with each of the endings, the longest of which decides. */
static std::string cut(std::string name, const std::string& number,
                       const std::vector<std::string>& endings)
{
    size_t room = MIB_NAME_MAX - number.size();
    for (const std::string& ending : endings) {
        room = std::min(room, MIB_NAME_MAX - number.size() - ending.size());
    }
    name.resize(std::min(name.size(), room));
    return name + number;
}

static bool take(mib_names_t* names, const std::string& name,
                 const std::vector<std::string>& endings)
{
    const auto is_taken = [&](const std::string& ending) {
        return names->contains(lower(name + ending));
    };
    if (std::ranges::any_of(endings, is_taken)) {
        return false;
    }
    for (const std::string& ending : endings) {
        names->insert(lower(name + ending));
    }
    return true;
}

std::string mib_name_take(mib_names_t* names, const std::string& wanted, const std::string& second,
                          const std::vector<std::string>& endings)
{
    std::string name = cut(wanted, "", endings);
    if (take(names, name, endings)) {
        return name;
    }
    const std::string& base = second.empty() ? wanted : second;
    name = cut(base, "", endings);
    for (uint32_t i = 2; !take(names, name, endings); i++) {
        /* Digits behind a digit would read as another number. */
        const bool digit = isdigit(static_cast<unsigned char>(base.back())) != 0;
        name = cut(base, (digit ? "x" : "") + std::to_string(i), endings);
    }
    return name;
}

std::string mib_capital(std::string name)
{
    name[0] = static_cast<char>(toupper(static_cast<unsigned char>(name[0])));
    return name;
}

/* ---- the module's ---- */

static bool is_module_name(const std::string& name)
{
    const auto is_legal = [](char c) { return is_alnum(c) || c == '-'; };
    return !name.empty() && name.size() <= MIB_NAME_MAX && name[0] >= 'A' && name[0] <= 'Z' &&
           std::ranges::all_of(name, is_legal) && name.back() != '-' &&
           name.find("--") == std::string::npos;
}

/* "LINE2" for /var/built_in_jsonmib/libmibline2.so.json; "CARD" where nothing is left. */
static std::string module_of(const std::string& file)
{
    std::string base = file.substr(file.find_last_of('/') + 1);
    base.resize(std::min(base.find('.'), base.size()));
    if (base.starts_with("libmib")) {
        base.erase(0, 6);
    }
    std::string name;
    for (const char c : base) {
        if (is_alnum(c)) {
            name += static_cast<char>(toupper(static_cast<unsigned char>(c)));
        } else if (!name.empty() && name.back() != '-') {
            name += '-';
        }
    }
    name.resize(std::min(name.size(), MIB_NAME_MAX / 2));
    name.resize(name.find_last_not_of('-') + 1);
    if (name.empty()) {
        return "CARD";
    }
    return name[0] >= 'A' ? name : "CARD-" + name;
}

std::string mib_module_name(const std::string& asked, const std::string& file)
{
    constexpr const char* ENDING = "-MIB";
    const std::string name = asked.empty() ? module_of(file) : asked;
    const std::string whole = name.ends_with(ENDING) ? name : name + ENDING;
    return is_module_name(name) && is_module_name(whole) && whole != "SNMPv2-MIB" ? whole : "";
}

/* ---- texts ---- */

/* The code point that begins at the text's first byte, and its length; 0 when it is not UTF-8. */
static uint32_t code_point(std::string_view text, size_t* length)
{
    const auto first = static_cast<unsigned char>(text[0]);
    *length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
    uint32_t point = *length == 1 ? 0 : first & (0x7FU >> *length);
    for (size_t i = 1; i < *length; i++) {
        const unsigned next = i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
        if ((next & 0xC0U) != 0x80U) {
            *length = 1;
            return 0;
        }
        point = point << 6U | (next & 0x3FU);
    }
    return point;
}

std::string mib_quotable(std::string_view text)
{
    std::string out;
    for (size_t i = 0, length = 1; i < text.size(); i += length) {
        const auto byte = static_cast<unsigned char>(text[i]);
        length = 1;
        if (byte >= 0x20 && byte < 0x7F) {
            out += text[i] == '"' ? '\'' : text[i];
            continue;
        }
        const uint32_t point = byte < 0x80 ? byte : code_point(text.substr(i), &length);
        char code[16];
        snprintf(code, sizeof(code), point == 0 ? "\\x%02X" : "\\u%04X", point == 0 ? byte : point);
        out += code;
    }
    return out;
}
