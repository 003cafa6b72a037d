/* The tests use the agent's fixed paths, so that their program runs in a private world. */

#include "runner.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>

/* Becomes scripts/world.sh with this program as its command; returns only on failure. */
static void enter_world(char** argv)
{
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const char* const keep = getenv("WORLD_KEEP");
    setenv("WORLD_KEEP",
           (self.parent_path().string() + ":" + (keep == nullptr ? "" : keep)).c_str(), 1);
    setenv("TPG_WORLD", "1", 1);
    words_t command = words_t{TPG_SOURCE_DIR "/scripts/world.sh"} + runner() + words_t{self};
    while (*++argv != nullptr) {
        command.emplace_back(*argv);
    }
    become(command);
}

int main(int argc, char** argv)
{
    const bool listing = std::count(argv, argv + argc, std::string("--gtest_list_tests")) > 0;
    if (!listing && getenv("TPG_WORLD") == nullptr) {
        enter_world(argv);
    }
    const rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
