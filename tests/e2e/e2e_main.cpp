#include "world.h"

#include <cstdlib>

int main(int argc, char** argv)
{
    char** const words = argv;
    const std::vector<char*> all(argv, argv + argc + 1); /* before gtest takes its own */
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) {
        if (getenv("TPG_WORLD") == nullptr) {
            std::copy(all.begin(), all.end(), words);
            world_enter(words);
        }
        world_begin();
    }
    return RUN_ALL_TESTS();
}
