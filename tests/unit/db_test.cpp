/* The send-trap switches on flash, and what a power cut or a failing flash leaves of them. */

#include "tpg_db.h"
#include "tpg_json.h"
#include "unit.h"

#include <climits>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/syscall.h>

namespace fs = std::filesystem;

static const std::string DIR = "/mnt/flash0/cards/fam_slot03", FILE_NAME = DIR + "/sendtrap.json",
                         SPARE_NAME = FILE_NAME + ".last", STAGE_NAME = FILE_NAME + ".new";
constexpr int OLD = 1, NEW = 2, NONE = 255;

/* What makes files and names durable, in its order. */
static std::string disk_calls;

static std::string base_name(const fs::path& path)
{
    return path.filename();
}

/* In place of the system's. */
extern "C" int fsync(int fd)
{
    disk_calls += "sync " + base_name(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    disk_calls += "\n";
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int rename(const char* from, const char* to) noexcept
{
    disk_calls += base_name(from) + " is now " + base_name(to) + "\n";
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

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

    std::vector<jsonmib_table_info_t*> tables = {table.get()};
    std::vector<netsnmp_handler_registration*> registrations = {nullptr, nullptr, nullptr};

    void SetUp() override
    {
        clear_folder(DIR);
        set_text(table->name, "t");
        list_tables();
    }
    void TearDown() override
    {
        forget();
        fs::remove_all(DIR);
    }
    void list_tables()
    {
        record->fault_json_table = tables.data();
        record->fault_table_reginfo = registrations.data();
        record->fault_table_reginfo_sum = static_cast<uint32_t>(tables.size());
    }
    /* What the agent knows is gone, as at its end. */
    void forget()
    {
        json_object_put(std::exchange(record->sendtrap_json_db, nullptr));
        record->sendtrap_state = {};
        memset(row, NONE, JSONMIB_SENDTRAP_ROW);
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
        forget();
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
        {"{\"t\":[4]}", good, "is out of date, its switches come from", 5, 0, 0},
        {good, "{\"t\":[6", "Info Successfully loaded", 5, 0, 0},
        {good, "[6]", "Info Successfully loaded", 5, 0, 0},
        {"-", "{\"t\":[6", "Info Creating", 255, 255, 255},
    };
    for (const auto& [file, spare, log, first, tenth, last] : cases) {
        const std::string outcome = start(file, spare);
        EXPECT_TRUE(has(outcome, log)) << file << spare << outcome;
        EXPECT_EQ((std::vector<int>{row[0], row[9], row[1023], row[1024]}),
                  (std::vector<int>{first, tenth, last, 0}));
        row[9] = 77;
        update();
        EXPECT_FALSE(fs::exists(SPARE_NAME)) << file << spare;
        const bool is_usable = outcome.starts_with("0 ") && !has(log, "stored switches are");
        EXPECT_EQ(has(read_file(FILE_NAME), ", 77, "), is_usable);
    }
    ctx->log_level = TPG_LOG_LEVEL_DEBUG;
    tpg_debug_tokens_set(std::string("mibregister").data());
    EXPECT_TRUE(has(start(good, "-"), "Debug Matched table name t\nError Successfully loaded s"));
    tpg_debug_tokens_total = 0;
    EXPECT_EQ(update(), "Debug Matched table name t");
}

/* Flash shows what was not written yet as cut off, or as zeros. */
TEST_F(db, power_cut_at_every_step)
{
    ctx->log_level = 0;
    const std::string old_text = text_of(OLD), new_text = text_of(NEW);
    for (size_t done = 0; done < new_text.size() - 2; done += 307) {
        for (const std::string& rest : {std::string(), std::string(new_text.size() - done, '\0')}) {
            const std::string torn = new_text.substr(0, done) + rest;
            /* The stage, the spare, the file | what holds then. */
            for (const auto& [stage, spare, file, byte] :
                 {std::tuple{torn, std::string("-"), std::string("-"), NONE},
                  {torn, "-", old_text, OLD},
                  {torn, new_text, old_text, NEW},
                  {"", torn, old_text, OLD},
                  {"", new_text, torn, NEW}}) {
                write_file(STAGE_NAME, stage);
                start(file, spare);
                EXPECT_EQ(row[0], byte) << done;
                update();
                EXPECT_TRUE(read_file(FILE_NAME) == text_of(byte));
                EXPECT_FALSE(fs::exists(SPARE_NAME) || fs::exists(STAGE_NAME));
            }
        }
    }
}

/* What is no document needs no memory. */
TEST_F(db, large_files)
{
    for (const auto& [size, log] : {std::pair{1U << 30U, "1073741824 bytes, from 1 to "},
                                    {200U << 20U, "json_tokener_parse_ex failed"}}) {
        fs::remove(FILE_NAME);
        write_file(FILE_NAME, "");
        fs::resize_file(FILE_NAME, size);
        const std::string outcome = recall();
        EXPECT_TRUE(outcome.starts_with("-1 ") && has(outcome, log)) << outcome;
    }
}

/* What a flash did not take is saved with the next change, and is not forgotten before. */
TEST_F(db, a_flash_that_cannot_be_written)
{
    const auto failing_update = [&](const std::string& name) {
        const std::string log = update();
        EXPECT_TRUE(log.starts_with("Error Failed to open " + name + ", ")) << log;
        EXPECT_TRUE(has(log, "Error Losing persistence storage capability!\n")) << log;
    };
    /* Room for one text, but not for two. */
    ASSERT_EQ(mount("tmpfs", DIR.c_str(), "tmpfs", 0, "size=20k"), 0);
    start(text_of(OLD), "-");
    write_file(DIR + "/filler", std::string(8192, 'x'));
    row[0] = NEW;
    failing_update(STAGE_NAME);
    EXPECT_TRUE(read_file(FILE_NAME) == text_of(OLD));
    EXPECT_FALSE(fs::exists(SPARE_NAME) || fs::exists(STAGE_NAME));
    memset(row, NONE, JSONMIB_SENDTRAP_ROW);
    log_of([&] { tpg_preload_send_trap_storage(ctx.get(), record); }); /* for a new master */
    EXPECT_EQ(row[0], NEW);
    fs::remove(DIR + "/filler");
    tpg_db_release(ctx.get(), record);
    EXPECT_TRUE(read_file(FILE_NAME) == text_of(NEW));
    ASSERT_EQ(umount(DIR.c_str()), 0);

    /* A file that cannot be replaced, good or not: the newest text stands beside it. */
    for (const std::string& text : {text_of(OLD), std::string()}) {
        start(text, text_of(OLD));
        fs::remove(SPARE_NAME);
        write_file(FILE_NAME, text);
        ASSERT_EQ(mount(FILE_NAME.c_str(), FILE_NAME.c_str(), nullptr, MS_BIND, nullptr), 0);
        for (const uint8_t byte : {uint8_t{3}, uint8_t{NEW}}) {
            row[0] = byte;
            failing_update(FILE_NAME);
            recall();
            EXPECT_EQ(row[0], byte);
        }
        EXPECT_TRUE(read_file(FILE_NAME) == text);
        ASSERT_EQ(umount(FILE_NAME.c_str()), 0);
        EXPECT_EQ(update(), "");
        EXPECT_TRUE(read_file(FILE_NAME) == text_of(NEW));
        EXPECT_FALSE(fs::exists(SPARE_NAME));
    }
}

/* A link is not followed, but replaced. */
TEST_F(db, links)
{
    write_file(FILE_NAME, text_of(OLD));
    recall();
    row[0] = NEW;
    write_file("/tmp/target", text_of(OLD));
    fs::remove(FILE_NAME);
    fs::create_symlink("/tmp/target", FILE_NAME);
    fs::create_symlink("/tmp/target", STAGE_NAME);
    EXPECT_TRUE(update().starts_with("Error Failed to open " + STAGE_NAME));
    update();
    EXPECT_TRUE(read_file("/tmp/target") == text_of(OLD));
    EXPECT_FALSE(fs::is_symlink(FILE_NAME));
    EXPECT_TRUE(read_file(FILE_NAME) == text_of(NEW));
}
