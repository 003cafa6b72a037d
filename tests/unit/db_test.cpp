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

/* The switches of table t. */
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
        json_object_put(std::exchange(record->sendtrap_json_db, nullptr));
        fs::remove_all(DIR);
    }
    /* Loads and recalls. */
    std::string recall()
    {
        return outcome_of([&] {
            const int ret = tpg_db_load_sendtrap_db_file(ctx.get(), record);
            tpg_db_recall_sendtrap_persistence(ctx.get(), table.get(), record);
            return ret;
        });
    }
    std::string update()
    {
        return log_of([&] { tpg_db_update_sendtrap_persistence(ctx.get(), table.get(), 3); });
    }
};

/* What the file and its spare hold ("-": there is none), what that logs, and the row's bytes. */
TEST_F(db, stored_documents)
{
    const std::string longer =
        std::regex_replace("{\"t\":[7" + std::string(1024, 'x') + "]}", std::regex("x"), ",9");
    const std::string good = "{\"t\":[5]}";
    struct {
        std::string file, spare;
        const char* log;
        int first, tenth, last;
    } cases[] = {
        {"-", "-", "0 Info Creating", 255, 255, 255},
        {"{\"t\":[1,2,3,4,5,6,7,8,9,10]}", "-", "0 Info Successfully loaded", 1, 10, 0},
        {"{\"t\":[-1,\"x\",256]}", "-", "0 Info Successfully loaded", 255, 0, 0},
        {longer, "-", "Warn 1025 stored switch bytes for table t, 1024 are used\n", 7, 9, 9},
        {"{\"t\":\"x\"}", "-", "Error Invalid json type 6 for table t\n", 255, 255, 255},
        {"[1]", "-", "Error stored switches are of json type 5, expected an", 255, 255, 255},
        {"{\"t\":[5", "-", "-1 Error ...........json_tokener_parse_ex failed", 255, 255, 255},
        {"", "-", "-1 Error Corrupted persistence json file!\n", 255, 255, 255},
        /* A power cut while the file was written leaves its text in the spare. */
        {"", good, "is unusable, its switches come from", 5, 0, 0},
        {"-", good, "is unusable, its switches come from", 5, 0, 0},
        {good, "{\"t\":[6", "0 Info Successfully loaded", 5, 0, 0},
        {"-", "{\"t\":[6", "-1 Error", 255, 255, 255},
    };
    for (const auto& [file, spare, log, first, tenth, last] : cases) {
        SetUp();
        for (const auto& [name, text] : {std::pair{FILE_NAME, file}, {SPARE_NAME, spare}}) {
            if (text != "-") {
                write_file(name, text);
            }
        }
        const std::string outcome = recall();
        EXPECT_TRUE(has(outcome, log)) << file << spare << outcome;
        EXPECT_EQ(fs::exists(SPARE_NAME), file + spare == "-{\"t\":[6") << file << spare;
        EXPECT_EQ((std::vector<int>{row[0], row[9], row[1023], row[1024]}),
                  (std::vector<int>{first, tenth, last, 0}));
        row[9] = 77;
        update();
        const bool is_usable = outcome.starts_with("0 ") && !has(log, "stored switches are");
        EXPECT_EQ(has(read_file(FILE_NAME), ", 77, "), is_usable);
        TearDown();
    }
}

TEST_F(db, a_flash_that_cannot_be_written)
{
    recall();
    const std::string before = read_file(FILE_NAME);
    const auto failing_update = [&] {
        const std::string log = update();
        EXPECT_TRUE(log.starts_with("Error Failed to open " + std::string(SPARE_NAME))) << log;
        EXPECT_TRUE(log.ends_with("Error Losing persistence storage capability!\n")) << log;
    };
    /* Room for the file, but not for the spare beside it. */
    ASSERT_EQ(mount("tmpfs", DIR, "tmpfs", 0, "size=12k"), 0);
    write_file(FILE_NAME, before);
    failing_update();
    EXPECT_EQ(read_file(FILE_NAME), before);
    EXPECT_FALSE(fs::exists(SPARE_NAME));
    ASSERT_EQ(umount(DIR), 0);

    fs::remove_all(DIR);
    failing_update();
    fs::create_directories(DIR);
    write_file("/tmp/target", "{\"t\":[5]}");
    fs::create_symlink("/tmp/target", FILE_NAME); /* is not followed */
    EXPECT_TRUE(recall().starts_with("-1 "));
    EXPECT_EQ(read_file("/tmp/target"), "{\"t\":[5]}");
}
