/* The tests use the agent's fixed paths, so that the program runs in a private world. */

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
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
    std::vector<std::string> words = {TPG_SOURCE_DIR "/scripts/world.sh"};
    for (std::string word; runner_words >> word;) {
        words.push_back(word);
    }
    words.push_back(self);
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> command;
    for (std::string& word : words) {
        command.push_back(word.data());
    }
    command.push_back(nullptr);
    setenv("TPG_WORLD", "1", 1);
    setenv("WORLD_KEEP", self.parent_path().c_str(), 0);
    execv(command[0], command.data());
    perror(command[0]);
}

int main(int argc, char** argv)
{
    bool listing = false;
    for (int i = 1; i < argc; i++) {
        listing = listing || strcmp(argv[i], "--gtest_list_tests") == 0;
    }
    if (!listing && getenv("TPG_WORLD") == nullptr) {
        enter_world(argc, argv);
        return EXIT_FAILURE;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
