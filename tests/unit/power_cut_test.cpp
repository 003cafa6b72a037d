/* A power cut at any step of rewriting the switches leaves the old or the new ones. */

#include "tpg_db.h"
#include "tpg_json.h"
#include "unit.h"

#include <filesystem>
#include <sys/mount.h>
#include <sys/resource.h>

namespace fs = std::filesystem;

constexpr char DIR[] = "/mnt/flash0/cards/cut_slot03";
constexpr char FILE_NAME[] = "/mnt/flash0/cards/cut_slot03/sendtrap.json";
constexpr char SPARE_NAME[] = "/mnt/flash0/cards/cut_slot03/sendtrap.json.last";
constexpr int OLD = 1, NEW = 2;

/* The file with one switch byte that says which text it is. */
static std::string text_of(int byte)
{
    std::string text = "{ \"t\": [ " + std::to_string(byte);
    for (int i = 1; i < 1024; i++) {
        text += ", 255";
    }
    return text + " ] }\n";
}

struct power_cut : testing::Test {
    std::unique_ptr<tpg_context_t> ctx = new_context(0);
    tpg_jsonmib_register_info_t* record = &ctx->jsonmib_reg_info[2];

    void SetUp() override
    {
        fs::create_directories(DIR);
        record->libmib_reginfo.slot_no = 3;
        set_text(record->libmib_reginfo.prod_family, "cut");
    }
    void TearDown() override
    {
        json_object_put(record->sendtrap_json_db);
        fs::remove_all(DIR);
    }
    int load()
    {
        json_object_put(std::exchange(record->sendtrap_json_db, nullptr));
        return tpg_db_load_sendtrap_db_file(ctx.get(), record);
    }
    /* The switch byte after a start, or -1. */
    int loaded()
    {
        if (load() != 0) {
            return -1;
        }
        json_object* array = json_object_object_get(record->sendtrap_json_db, "t");
        return json_object_get_int(json_object_array_get_idx(array, 0));
    }
};

/* Flash shows what was not written yet as cut off, or as zeros. */
TEST_F(power_cut, at_every_step)
{
    const std::string old_text = text_of(OLD), new_text = text_of(NEW);
    for (size_t done = 0; done <= new_text.size(); done += 61) {
        for (const std::string& rest : {std::string(), std::string(new_text.size() - done, '\0')}) {
            const std::string torn = new_text.substr(0, done) + rest;
            write_file(FILE_NAME, old_text);
            write_file(SPARE_NAME, torn);
            EXPECT_EQ(loaded(), OLD) << done;
            EXPECT_FALSE(fs::exists(SPARE_NAME));
            write_file(FILE_NAME, torn);
            write_file(SPARE_NAME, new_text);
            EXPECT_EQ(loaded(), NEW) << done;
            EXPECT_EQ(read_file(FILE_NAME), new_text);
            EXPECT_FALSE(fs::exists(SPARE_NAME));
        }
    }
}

/* As long as the file is broken, the spare's is the only good text. */
TEST_F(power_cut, the_only_good_text_stays)
{
    write_file(FILE_NAME, "");
    write_file(SPARE_NAME, text_of(OLD));
    ASSERT_EQ(mount(FILE_NAME, FILE_NAME, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, FILE_NAME, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(loaded(), OLD);
    tpg_db_update_sendtrap_db_file(ctx.get(), record);
    EXPECT_EQ(read_file(SPARE_NAME), text_of(OLD));
    ASSERT_EQ(umount(FILE_NAME), 0);
    EXPECT_EQ(loaded(), OLD);
    EXPECT_EQ(read_file(FILE_NAME), text_of(OLD));
    EXPECT_FALSE(fs::exists(SPARE_NAME));
}

/* A file that cannot be opened now is neither emptied nor removed. */
TEST_F(power_cut, a_file_that_cannot_be_read_now_stays)
{
    write_file(FILE_NAME, text_of(OLD));
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int ret = load();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(loaded(), OLD);
}
