/* The send-trap switches on flash. */

#include "tpg_db.h"
#include "tpg_json.h"
#include "unit.h"

#include <filesystem>
#include <sys/mount.h>

namespace fs = std::filesystem;

constexpr char DIR[] = "/mnt/flash0/cards/fam_slot03";
constexpr char FILE_NAME[] = "/mnt/flash0/cards/fam_slot03/sendtrap.json";
constexpr char SPARE_NAME[] = "/mnt/flash0/cards/fam_slot03/sendtrap.json.last";

/* The member of a whole array: first in entry 0, then rest. */
static std::string member(const std::string& name, const std::string& first,
                          const std::string& rest)
{
    std::string text = "\"" + name + "\": [ " + first;
    for (int i = 1; i < 1024; i++) {
        text += ", " + rest;
    }
    return text + " ]";
}

struct db : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    std::unique_ptr<jsonmib_table_info_t> table = std::make_unique<jsonmib_table_info_t>();
    tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[2];
    uint8_t* row = table->send_trap_storage[2];

    void SetUp() override
    {
        fs::create_directories(DIR);
        record->libmib_reginfo.slot_no = 3;
        set_text(record->libmib_reginfo.prod_family, "fam");
        set_text(table->name, "t");
        memset(row, 0xff, JSONMIB_SENDTRAP_ROW);
    }
    void TearDown() override
    {
        json_object_put(record->sendtrap_json_db);
        fs::remove_all(DIR);
    }
    /* Loads and recalls; "0" or "-1" and the log. */
    std::string recall()
    {
        int ret = 0;
        const std::string log = log_of([&] {
            ret = tpg_db_load_sendtrap_db_file(ctx.get(), record);
            tpg_db_recall_sendtrap_persistence(ctx.get(), table.get(), record);
        });
        return std::to_string(ret) + " " + log;
    }
    std::string update(int slot = 3)
    {
        return log_of([&] { tpg_db_update_sendtrap_persistence(ctx.get(), table.get(), slot); });
    }
};

TEST_F(db, created_defaulted_and_recalled)
{
    EXPECT_EQ(recall(), "0 Info Creating " + std::string(FILE_NAME) +
                            "\nInfo Created empty persistent file " + FILE_NAME +
                            "\nInfo Created default send_trap_storage for table t\n");
    EXPECT_EQ(read_file(FILE_NAME), "{ " + member("t", "255", "255") + " }\n");
    row[0] = 254;
    EXPECT_EQ(update(), "");
    EXPECT_EQ(read_file(FILE_NAME), "{ " + member("t", "254", "255") + " }\n");
    EXPECT_FALSE(fs::exists(SPARE_NAME));
    memset(row, 0, JSONMIB_SENDTRAP_ROW);
    const std::string log = recall();
    EXPECT_TRUE(has(log, "Error tpg_db_load_sendtrap_db_file(3): free target sendtrap_json_db ("));
    EXPECT_TRUE(
        has(log, "Info Successfully loaded sendtrap json db file " + std::string(FILE_NAME)));
    EXPECT_EQ(row[0], 254);
    EXPECT_EQ(row[1023], 255);
    EXPECT_EQ(update(4), "Error NULL sendtrap_json_db for table t of slot 4!\n");
    set_text(table->name, "u");
    EXPECT_EQ(update(), "Error Cannot find sendtrap for table u!\n");
}

TEST_F(db, stored_documents)
{
    std::string longer = "{\"t\":[7";
    for (int i = 0; i < 1024; i++) {
        longer += ",9";
    }
    struct {
        std::string text;
        int first, tenth, last; /* bytes of the row */
        const char* log;
    } cases[] = {
        {"{\"t\":[1,2,3,4,5,6,7,8,9,10]}", 1, 10, 0, "Info Successfully loaded"},
        {"{\"t\":[256]}", 0, 0, 0, "Info Successfully loaded"},
        {"{\"t\":[-1,\"x\"]}", 255, 0, 0, "Info Successfully loaded"},
        {"{\"u\":[1],\"t\":[]}", 0, 0, 0, "Info Successfully loaded"},
        {longer + "]}", 7, 9, 9, "Warn 1025 stored switch bytes for table t, 1024 are used\n"},
        {"{\"t\":\"x\"}", 255, 255, 255, "Error Invalid json type 6 for table t\n"},
        {"[1]", 255, 255, 255, "Error stored switches are of json type 5, expected an object"},
        {"true ", 255, 255, 255, "Error stored switches are of json type 1, expected an object"},
        {"{\"t\":[", 255, 255, 255, "Error ...........Corrupted persistence json file!\n"},
        {"", 255, 255, 255, "Error Corrupted persistence json file!\n"},
    };
    for (const auto& [text, first, tenth, last, log] : cases) {
        SCOPED_TRACE(text.substr(0, 40));
        SetUp();
        write_file(FILE_NAME, text);
        EXPECT_TRUE(has(recall(), log));
        EXPECT_EQ(row[0], first);
        EXPECT_EQ(row[9], tenth);
        EXPECT_EQ(row[1023], last);
        EXPECT_EQ(table->send_trap_storage[3][0], 0);
        row[9] = 77;
        update();
        EXPECT_EQ(has(read_file(FILE_NAME), ", 77, "), has(log, "table t") || has(log, "Info"));
        fs::remove(FILE_NAME);
    }
}

/* A power cut while the file was written leaves its text in the spare. */
TEST_F(db, the_spare_file)
{
    const std::string good = "{\"t\":[5]}";
    for (const char* file : {"", "{\"t\":[5", static_cast<const char*>(nullptr)}) {
        write_file(SPARE_NAME, good);
        if (file != nullptr) {
            write_file(FILE_NAME, file);
        }
        EXPECT_TRUE(has(recall(), std::string("Warn ") + FILE_NAME +
                                      " is unusable, its switches come from " + SPARE_NAME));
        EXPECT_EQ(row[0], 5);
        EXPECT_EQ(read_file(FILE_NAME), "{ \"t\": [ 5 ] }\n");
        EXPECT_FALSE(fs::exists(SPARE_NAME));
        fs::remove(FILE_NAME);
    }
    write_file(FILE_NAME, good);
    write_file(SPARE_NAME, "{\"t\":[6");
    EXPECT_FALSE(has(recall(), "Warn"));
    EXPECT_EQ(row[0], 5);
    fs::remove(FILE_NAME);
    EXPECT_TRUE(recall().starts_with("-1 "));
    EXPECT_EQ(record->sendtrap_json_db, nullptr);
}

TEST_F(db, a_flash_that_cannot_be_written)
{
    recall();
    const std::string before = read_file(FILE_NAME);
    const auto failing_update = [&] {
        row[0] ^= 1U;
        const std::string log = update();
        EXPECT_TRUE(log.starts_with("Error Failed to open " + std::string(SPARE_NAME))) << log;
        EXPECT_TRUE(log.ends_with("Error Losing persistence storage capability!\n")) << log;
    };
    ASSERT_EQ(mount(DIR, DIR, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, DIR, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    failing_update();
    EXPECT_EQ(read_file(FILE_NAME), before);
    ASSERT_EQ(umount(DIR), 0);

    /* Room for the file, but not for the spare beside it. */
    ASSERT_EQ(mount("tmpfs", DIR, "tmpfs", 0, "size=12k"), 0);
    write_file(FILE_NAME, before);
    failing_update();
    EXPECT_EQ(read_file(FILE_NAME), before);
    EXPECT_FALSE(fs::exists(SPARE_NAME));
    ASSERT_EQ(umount(DIR), 0);

    fs::remove_all(DIR);
    failing_update();
    EXPECT_EQ(recall().substr(0, 17), "-1 Error tpg_db_l");
    EXPECT_EQ(record->sendtrap_json_db, nullptr);
    EXPECT_EQ(update(), "Error NULL sendtrap_json_db for table t of slot 3!\n");
}

TEST_F(db, links_are_not_followed)
{
    write_file("/tmp/target", "{\"t\":[5]}");
    fs::create_symlink("/tmp/target", FILE_NAME);
    EXPECT_TRUE(recall().starts_with("-1 "));
    EXPECT_EQ(read_file("/tmp/target"), "{\"t\":[5]}");
    EXPECT_EQ(row[0], 255);
}
