/* The send-trap switches on flash, and what a power cut or a failing flash leaves of them. */

#include "tpg_db.h"
#include "tpg_json.h"
#include "unit.h"

#include <sys/mount.h>
#include <sys/resource.h>

namespace fs = std::filesystem;

static const std::string DIR = "/mnt/flash0/cards/fam_slot03", FILE_NAME = DIR + "/sendtrap.json",
                         SPARE_NAME = FILE_NAME + ".last";
constexpr int OLD = 1, NEW = 2, NONE = 255;

/* The file with one switch byte that says which text it is. */
static std::string text_of(int byte)
{
    std::string text = "{ \"t\": [ " + std::to_string(byte);
    for (int i = 1; i < 1024; i++) {
        text += ", 255";
    }
    return text + " ] }\n";
}

/* The switches of table t. */
struct db : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context();
    std::unique_ptr<jsonmib_table_info_t> table = std::make_unique<jsonmib_table_info_t>();
    tpg_jsonmib_register_info_t* record = new_card(ctx.get(), 3, "fam");
    uint8_t* row = table->send_trap_storage[2];

    void SetUp() override
    {
        clear_folder(DIR);
        set_text(table->name, "t");
    }
    void TearDown() override
    {
        json_object_put(std::exchange(record->sendtrap_json_db, nullptr));
        fs::remove_all(DIR);
    }
    /* What a start makes of the files ("-": there is none). */
    std::string start(const std::string& file, const std::string& spare)
    {
        for (const auto& [name, text] : {std::pair{FILE_NAME, file}, {SPARE_NAME, spare}}) {
            fs::remove(name);
            if (text != "-") {
                write_file(name, text);
            }
        }
        return recall();
    }
    std::string recall()
    {
        json_object_put(std::exchange(record->sendtrap_json_db, nullptr));
        memset(row, NONE, JSONMIB_SENDTRAP_ROW);
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

/* What the file and its spare hold, what that logs, and the row's bytes. */
TEST_F(db, stored_documents)
{
    const std::string longer = std::regex_replace(text_of(7), std::regex(" \\]"), ", 9 ]");
    const std::string good = "{\"t\":[5]}";
    struct {
        std::string file, spare, log;
        int first, tenth, last;
    } cases[] = {
        {"-", "-", "0 Info Creating", 255, 255, 255},
        {"{\"t\":[1,2,3,4,5,6,7,8,9,10]}", "-", "0 Info Successfully loaded", 1, 10, 0},
        {"{\"t\":[-1,\"x\",256]}", "-", "0 Info Successfully loaded", 255, 0, 0},
        {longer, "-", "Warn 1025 stored switch bytes for table t, 1024 are used\n", 7, 255, 255},
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
        const std::string outcome = start(file, spare);
        EXPECT_TRUE(has(outcome, log)) << file << spare << outcome;
        EXPECT_EQ(fs::exists(SPARE_NAME), file + spare == "-{\"t\":[6") << file << spare;
        EXPECT_EQ((std::vector<int>{row[0], row[9], row[1023], row[1024]}),
                  (std::vector<int>{first, tenth, last, 0}));
        row[9] = 77;
        update();
        const bool is_usable = outcome.starts_with("0 ") && !has(log, "stored switches are");
        EXPECT_EQ(has(read_file(FILE_NAME), ", 77, "), is_usable);
    }
    ctx->log_level = TPG_LOG_LEVEL_DEBUG;
    EXPECT_TRUE(has(start(good, "-"), "Debug Matched table name t\n"));
    EXPECT_EQ(update(), "Debug Matched table name t");
}

/* Flash shows what was not written yet as cut off, or as zeros. */
TEST_F(db, power_cut_at_every_step)
{
    ctx->log_level = 0;
    const std::string old_text = text_of(OLD), new_text = text_of(NEW);
    for (size_t done = 0; done <= new_text.size(); done += 61) {
        for (const std::string& rest : {std::string(), std::string(new_text.size() - done, '\0')}) {
            const std::string torn = new_text.substr(0, done) + rest;
            for (const bool in_spare : {true, false}) {
                start(in_spare ? old_text : torn, in_spare ? torn : new_text);
                EXPECT_EQ(row[0], in_spare ? OLD : NEW) << done;
                EXPECT_EQ(read_file(FILE_NAME), in_spare ? old_text : new_text);
                EXPECT_FALSE(fs::exists(SPARE_NAME));
            }
        }
    }
}

TEST_F(db, a_flash_that_cannot_be_written)
{
    /* As long as the file is broken, the spare's is the only good text: it is not touched. */
    write_file(FILE_NAME, "");
    write_file(SPARE_NAME, text_of(OLD));
    for (const char* name : {FILE_NAME.c_str(), SPARE_NAME.c_str()}) {
        ASSERT_EQ(mount(name, name, nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(mount(nullptr, name, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    }
    recall();
    EXPECT_EQ(row[0], OLD);
    EXPECT_TRUE(update().starts_with("Error Failed to open " + FILE_NAME + ","));
    EXPECT_EQ(read_file(SPARE_NAME), text_of(OLD));
    ASSERT_EQ(umount(FILE_NAME.c_str()) + umount(SPARE_NAME.c_str()), 0);
    recall();
    EXPECT_EQ(row[0], OLD);
    EXPECT_EQ(read_file(FILE_NAME), text_of(OLD));

    const auto failing_update = [&] {
        const std::string log = update();
        EXPECT_TRUE(log.starts_with("Error Failed to open " + SPARE_NAME)) << log;
        EXPECT_TRUE(log.ends_with("Error Losing persistence storage capability!\n")) << log;
    };
    /* Room for the file, but not for the spare beside it. */
    ASSERT_EQ(mount("tmpfs", DIR.c_str(), "tmpfs", 0, "size=12k"), 0);
    write_file(FILE_NAME, text_of(OLD));
    failing_update();
    EXPECT_EQ(read_file(FILE_NAME), text_of(OLD));
    EXPECT_FALSE(fs::exists(SPARE_NAME));
    ASSERT_EQ(umount(DIR.c_str()), 0);
    fs::remove_all(DIR);
    failing_update();
}

/* A file that cannot be opened now is neither emptied nor removed; a link is not followed. */
TEST_F(db, a_file_that_cannot_be_read)
{
    write_file(FILE_NAME, text_of(OLD));
    recall();
    /* A sanitizer would need descriptors to check an access to the fixture. */
    const auto load = [agent = ctx.get(), card = record] {
        return tpg_db_load_sendtrap_db_file(agent, card);
    };
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int ret = load();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(record->sendtrap_json_db, nullptr);
    EXPECT_EQ(read_file(FILE_NAME), text_of(OLD));
    recall();
    row[0] = NEW;
    write_file("/tmp/target", text_of(OLD));
    fs::remove(FILE_NAME);
    fs::create_symlink("/tmp/target", FILE_NAME);
    update();
    fs::remove(SPARE_NAME);
    EXPECT_TRUE(recall().starts_with("-1 "));
    EXPECT_EQ(read_file("/tmp/target"), text_of(OLD));
}
