/* The tests use the agent's fixed paths, so that the program runs in a private world. */

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

/* Becomes scripts/world.sh with this program as its command; returns only on failure. */
static void enter_world(int argc, char** argv)
{
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const char* runner = getenv("TPG_RUNNER");
    std::istringstream runner_words(runner == nullptr ? "" : runner);
    std::vector<std::string> words(std::istream_iterator<std::string>(runner_words), {});
    words.insert(words.begin(), TPG_SOURCE_DIR "/scripts/world.sh");
    words.push_back(self);
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> command(words.size() + 1); /* ends with a null pointer */
    std::transform(words.begin(), words.end(), command.begin(),
                   [](std::string& word) { return word.data(); });
    setenv("TPG_WORLD", "1", 1);
    setenv("WORLD_KEEP", self.parent_path().c_str(), 0);
    execv(command[0], command.data());
    perror(command[0]);
}

int main(int argc, char** argv)
{
    const bool listing = std::count(argv, argv + argc, std::string("--gtest_list_tests")) > 0;
    if (!listing && getenv("TPG_WORLD") == nullptr) {
        enter_world(argc, argv);
        return EXIT_FAILURE;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
