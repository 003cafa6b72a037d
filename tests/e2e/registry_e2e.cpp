/* Which card's tables are served, and where their documents come from. */

#include "world.h"

#include <regex>

namespace fs = std::filesystem;

static const std::string FAM = "1.3.6.1.4.1.32473.7";

/* Version 1.N.0 of the product brings table N. */
static std::string version(int n)
{
    return card_library("v" + std::to_string(n), "demo", numbered_document(FAM, n));
}

/* Registers a card through a connection of its own. */
static int plug(int slot, int n, const std::string& library, const std::string& product = "demo",
                const std::string& family = "FAM")
{
    const int fd = client_connect();
    EXPECT_TRUE(client_update_acked(
        fd, client_update(TPG_MSG_LIBMIB_REGISTER, slot, product, family, n, library)));
    return fd;
}

/* The cells of table n when it serves these slots. */
static std::string served(int n, const std::vector<int>& slots)
{
    std::string text;
    for (const int slot : slots) {
        const std::string number = std::to_string(slot);
        text += (text.empty() ? "" : " ") + std::to_string(n) + ".1.1." + number + "=" + number;
    }
    return text;
}

TEST_F(World, NewestCardServesItsFamily)
{
    agents_start(&w);
    const std::string v1 = version(1), v2 = version(2), v4 = version(4);
    plug(5, 2, v2);
    plug(9, 1, v1);
    EXPECT_TRUE(log_has(w, "Same/older version 1.1.0 on slot 9 ==> version 1.2.0 on master 5, "
                           "slot_ref_mask: 00000220"));
    expect_cells(FAM, served(2, {5, 9}));
    const int newest = plug(3, 4, v4);
    expect_cells(FAM, served(4, {3, 5, 9}));
    /* Only the card that registered can be withdrawn. */
    auto other = client_update(TPG_MSG_LIBMIB_UNREGISTER, 9, "demo", "FAM", 1, v1);
    other.libmib_update.board_sn[0] = 'X';
    EXPECT_TRUE(client_update_acked(newest, other));
    EXPECT_TRUE(log_has(w, "mismatched libmib_register_info"));
    expect_cells(FAM, served(4, {3, 5, 9}));
    /* A successor without its document leaves the family without tables. */
    fs::remove(v2);
    fs::remove(v2 + ".json");
    close(newest);
    EXPECT_TRUE(log_has(w, "tpg_snmp_register_jsonmib for new master"));
    expect_cells(FAM, "");
}

TEST_F(World, OldMasterComesBackWhenTheNewCardCannotServe)
{
    agents_start(&w);
    const std::string v2 = version(2);
    plug(3, 2, v2);
    plug(7, 4, card_library("bad", "demo", "{ \"gen_table_array\": [ {} ] }"));
    expect_cells(FAM, served(2, {3}));
    /* The first table of this one gets registered. */
    const std::string broken =
        std::regex_replace(numbered_document(FAM, 6), std::regex("\\]\\}$"), ", {}]}");
    const std::string half = card_library("half", "demo", broken);
    const int fd = plug(8, 6, half);
    EXPECT_TRUE(log_has(w, "Successfully fallback to master 2, but target slot 8"));
    expect_cells(FAM + ".2", served(2, {3}).substr(2));
    card_library("half", "demo", numbered_document(FAM, 9));
    EXPECT_TRUE(
        client_update_acked(fd, client_update(TPG_MSG_LIBMIB_REGISTER, 8, "demo", "FAM", 6, half)));
    /* The card in slot 7 is of the family, if without a document. */
    expect_cells(FAM, served(9, {3, 7, 8}));
    /* As a newer card's successor it fails halfway, too. Nothing of this is left the next time. */
    const int newer = plug(9, 7, version(7));
    expect_cells(FAM, served(7, {3, 7, 8, 9}));
    card_library("half", "demo", broken);
    close(newer);
    expect_cells(FAM, "");
    plug(10, 1, version(1));
    const int newest = plug(9, 7, version(7));
    expect_cells(FAM + ".7", "1.1.3=3 1.1.7=7 1.1.8=8 1.1.9=9 1.1.10=10");
    card_library("half", "demo", numbered_document(FAM, 5));
    close(newest);
    expect_cells(FAM, served(5, {3, 7, 8, 10}));
}

TEST_F(World, FamilyWithoutAnyTablesIsFatal)
{
    agents_start(&w);
    const std::string v2 = version(2);
    plug(3, 2, v2);
    expect_cells(FAM, served(2, {3}));
    fs::remove(v2);
    fs::remove(v2 + ".json");
    const auto card =
        client_update(TPG_MSG_LIBMIB_REGISTER, 7, "demo", "FAM", 4, "/tmp/cards/none.so");
    client_send(client_connect(), bytes_of(card));
    EXPECT_EQ(proc_end(&w.tpg, 0), -SIGABRT);
    EXPECT_EQ(log_count(w, "failed to fallback to old master 2 for slot_no 7"), 1);
}

TEST_F(World, DocumentComesFromTheFirstSourceThatHasOne)
{
    constexpr char ABSENT[] = "-";
    struct source_t {
        const char* product;
        int slot;
        std::string library, built_in, beside; /* documents */
        const char* log;
    };
    const auto doc = [](int n) { return numbered_document(FAM, n); };
    const source_t sources[] = {
        {"lib", 2, doc(2), doc(90), "", "Successfully find jsonmib symbol for product lib"},
        {"lib1", 3, doc(3) + " ", "", "", "symbol for product lib1"},
        {"lib2", 4, doc(4) + "  ", "", "", "symbol for product lib2"},
        {"lib3", 5, doc(5) + "   ", "", "", "symbol for product lib3"},
        {"nosym", 6, "", doc(6), "", "No jsonmib symbol for product nosym on slot_no 6."},
        {"badlib", 7, "{ \"name\": ", doc(7), "", "Bad libmib.so.json format, to use built-in"},
        {"tolvk", 8, doc(90), doc(8), "", "No jsonmib symbol for product tolvk"},
        {"nonlib", 9, ABSENT, doc(9), doc(90), "non-generic product nonlib on slot_no 9."},
        {"nonlib1", 1, ABSENT, doc(90), doc(1), "non-generic product nonlib1 on slot_no 1."},
        {"reverse", 10, "", "", "", "Fully reversing libmib file /tmp/cards/libmib_reverse.so"},
        {"badboth", 11, "", "[", "", "Bad libmib.so.json format, to conduct full-reverse."},
        {"none", 12, "", "", "", "libmib_reverse /tmp/cards/libmib_none.so ended with exit status 3"},
    };
    write_file("/tmp/reversed", doc(10));
    write_file("/tmp/bin/libmib_reverse",
               "#!/bin/sh\ncase $1 in\n"
               "*reverse.so) cp /tmp/reversed $1.json;;\n"
               "*badboth.so) sed s/,10]/,11]/ /tmp/reversed >$1.json;;\n*) exit 3;;\nesac\n",
               0755);
    agents_start(&w);
    for (const source_t& source : sources) {
        const std::string product = source.product;
        const std::string path = std::string(CARDS) + "/libmib_" + product + ".so";
        if (source.library != ABSENT) {
            card_library(product, source.library.empty() ? "" : product, source.library);
        }
        if (!source.built_in.empty()) {
            write_file(std::string(BUILT_IN) + "/libmib" + product + ".so.json", source.built_in);
        }
        if (!source.beside.empty()) {
            write_file(path + ".json", source.beside);
        }
        plug(source.slot, 1, path, product, product);
        EXPECT_TRUE(log_has(w, source.log)) << source.log;
    }
    EXPECT_TRUE(log_has(w, "fread failed"));
    std::string all;
    for (int n = 1; n <= 11; n++) {
        all += (n > 1 ? " " : "") + served(n, {n});
    }
    expect_cells(FAM, all);
    plug(13, 1, "/tmp/cards/nowhere.so", "nowhere", "nowhere");
    EXPECT_TRUE(log_has(w, "Cannot find jsonmib file for non-generic product nowhere"));
    plug(13, 1, card_library("longer", "lib_x", doc(13)), "lib", "longer");
    EXPECT_TRUE(log_has(w, "Mismatched jsonmib symbol name[jsonmib_lib_x] and prod_string[lib]"));
}
